// CAppCrashMetric: "eventlog|eventlog_appcrash". Every application crash event
// delivered to it becomes a pending detail text (message, crash time, host
// name joined with "<br />"); a query reports whether crashes are pending and
// hands each one to the host, dropping a crash once the host has refused it
// three times.
//
// Ownership: the texts of pending crashes live in a heap of the metric's own,
// made with the metric and destroyed after them.
// Threads: ParseEventLog runs on event delivery threads, CollectMetric on the
// host's thread; both hold the metric's mutex for their whole run, including
// the calls into the host's logger and sink.
// Teardown: deliveries stop before any member goes.
#pragma once

#include "appcrash/crash_text.h"
#include "metric/metric.h"
#include "win/private_heap.h"

#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <string_view>

namespace zeph {

inline constexpr wchar_t kCrashFlagKey[] = L"appcrash|contained";
inline constexpr wchar_t kCrashDetailsKey[] = L"appcrash|crash_details|*";
inline constexpr wchar_t kCrashPublisher[] = L"Application Error";

// One pending crash.
struct CrashEntry {
    CrashText text;
    uint32_t failureCount = 0;  // refused reports so far
};

// A crash refused this many times is dropped.
inline constexpr uint32_t kMaxReportFailures = 3;

class CAppCrashMetric final : public CMetric {
public:
    // GetComputerNameExW's shape; replaceable so the name lookup's failure path can be driven.
    using ComputerNameQuery = BOOL(WINAPI*)(COMPUTER_NAME_FORMAT format, LPWSTR buffer, LPDWORD size);

    CAppCrashMetric(const wchar_t* name, IProviderLogger* logger, IProviderHostContext* hostContext);
    ~CAppCrashMetric() override;

    [[nodiscard]] HRESULT CollectMetric(IMetricValueSink* sink, LONG_PTR context) override;

    void UseComputerNameQuery(ComputerNameQuery query) noexcept { computerNameQuery_ = query; }

protected:
    void ParseEventLog(EVT_HANDLE event) override;

private:
    void AddCrashEntry(std::wstring_view message);
    CrashText TakeSpareText();
    void KeepSpareText(CrashText&& text) noexcept;
    [[nodiscard]] bool QueryHostName();
    [[nodiscard]] HRESULT ReportCrashFlag(IMetricValueSink* sink);
    [[nodiscard]] HRESULT ReportCrashDetails(IMetricValueSink* sink);
    [[nodiscard]] HRESULT WriteCrashDetail(IMetricValueSink* sink, const CrashEntry& entry, uint32_t position);

    ComputerNameQuery computerNameQuery_;
    std::mutex mutex_;
    std::wstring crashTimeText_;  // of the event being parsed
    std::wstring hostNameText_;   // "<br />Host Name: NAME", once known
    // Pending crashes stay until the host's next query, which may be minutes
    // away, while everything else in the process allocates around them: their
    // texts, kept in the runtime's heap, scattered it (see private_heap.h).
    // The queues' own small blocks stay in the runtime's heap: freed next to
    // the large free spans a drained queue leaves in this one, they cost the
    // heap a decommit each. Declared first, so the heap outlives the texts.
    PrivateHeap crashHeap_;
    std::deque<CrashEntry> pendingCrashes_;  // oldest first
    // The texts of the crashes the last report handed over, kept for the
    // crashes parsed until the next one: a burst of crashes then commits its
    // memory once, not once per report (fresh pages were most of what a crash
    // cost). What the next report finds unused goes back to the heap. At most
    // kMostSpareTexts are kept, so that a report after a storm of crashes
    // frees no more than that many.
    static constexpr size_t kMostSpareTexts = 1024;
    std::deque<CrashText> spareTexts_;
};

}  // namespace zeph
