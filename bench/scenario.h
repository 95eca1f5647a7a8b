// What the benchmarks feed the provider: configuration elements, crash and
// layering events written into the simulated event log, and a provider set up
// the way the host sets it up.
#pragma once

#include "support/host_logger.h"
#include "support/host_object.h"
#include "win/xml_dom.h"

#include <agent.h>
#include <windows.h>
#include <wrl/client.h>

#include <string>
#include <vector>

namespace zeph::bench {

inline constexpr wchar_t kCrashMetric[] = L"eventlog|eventlog_appcrash";
inline constexpr wchar_t kLayeringMetric[] = L"eventlog|eventlog_quillon";
inline constexpr wchar_t kCrashQuery[] = L"*[System[Provider[@Name='Application Error']]]";
inline constexpr wchar_t kLayeringQuery[] = L"*[System[Provider[@Name='drovesvc']]]";
inline constexpr wchar_t kLayeringPublisher[] = L"drovesvc";

// Errors and warnings, as an agent logs in production; info is off.
inline constexpr ULONG kProductionLogLevels = 0x3;
inline constexpr ULONG kAllLogLevels = 0x7;

// <metric><channel>..</channel><query>..</query></metric> parsed by MSXML.
Microsoft::WRL::ComPtr<IXMLDOMElement> MakeMetricConfig(const std::wstring& channel, const std::wstring& query);

// Adds a channel to the simulated event log (existing ones are fine).
void AddChannel(const wchar_t* channel);

// Application crash messages as Windows writes them (about 600 characters,
// ten line breaks), a few dozen variants.
const std::vector<std::wstring>& CrashMessages();
ULONGLONG CrashTime(size_t index);

// Layering service messages that need no registry or file work: every second
// one classifies as "volumes ready", the others as nothing in particular.
const std::vector<std::wstring>& LayeringMessages();

// Writes count events and returns when the simulator has taken them (not
// when they are delivered). Exits the process if the simulator refuses one.
void WriteCrashEvents(const wchar_t* channel, size_t count);
void WriteLayeringEvents(const wchar_t* channel, size_t count);

// Waits until every delivery has run; exits the process on a stuck log.
void WaitForDeliveries();

// Stops the run with a message: a benchmark whose set-up fails measures nothing.
[[noreturn]] void Fail(const char* what);

// CProvider as the host drives it: created, given a logger and a context,
// then metrics subscribed by name.
class HostedProvider {
public:
    explicit HostedProvider(ULONG logLevels);
    ~HostedProvider();
    HostedProvider(const HostedProvider&) = delete;
    HostedProvider& operator=(const HostedProvider&) = delete;

    void Subscribe(const wchar_t* metric, const wchar_t* channel, const wchar_t* query);
    // QueryMetric through the IUnknown entry point, as the host calls it.
    HRESULT Query(const wchar_t* metric, IUnknown* sink);

private:
    HostLogger* logger_;  // keeps no lines
    HostContext* context_;
    Microsoft::WRL::ComPtr<IZephDataProvider> provider_;
};

}  // namespace zeph::bench
