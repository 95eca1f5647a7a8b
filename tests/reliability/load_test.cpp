// The crash metric under load: writer threads fill the event log with crash
// events while the host queries every few milliseconds through a sink that
// refuses a seeded share of the detail writes, and other metrics are
// subscribed and unsubscribed over and over beside it. At the end every
// crash written is accounted for exactly once.
#include "app_crash_metric.h"
#include "config_element.h"
#include "layering_env.h"
#include "metric_factory.h"
#include "recording_logger.h"
#include "recording_sink.h"
#include "reliability_host.h"
#include "simulated_event_log.h"
#include "test_com_object.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;

constexpr wchar_t kCrashChannel[] = L"ZephLoadCrashes";
constexpr wchar_t kChurnCrashChannel[] = L"ZephLoadChurnCrashes";
constexpr wchar_t kLayeringChannel[] = L"ZephLoadLayering";
constexpr wchar_t kCrashQuery[] = L"*[System[Provider[@Name='Application Error'] and (EventID=1000)]]";
constexpr wchar_t kChurnCrashName[] = L"EVENTLOG|EVENTLOG_APPCRASH";  // its own table entry

constexpr int kWriters = 4;
constexpr int kCrashesPerWriter = 10000;
constexpr int kCrashes = kWriters * kCrashesPerWriter;
constexpr uint64_t kSeed = 20261121;

constexpr HRESULT kDetailRefused = static_cast<HRESULT>(0x80070005);  // access denied
constexpr HRESULT kFlagRefused = static_cast<HRESULT>(0x80070015);    // device not ready

// Everything the load is allowed to take, and the drain after it.
constexpr ULONGLONG kLoadDeadlineMs = 240000;

constexpr wchar_t kMessagePrefix[] = L"Load crash ";
constexpr wchar_t kDropLine[] = L"Collecting metric has exceeded max failure times. Delete event from list ''";

std::wstring CrashMessage(int writer, int index)
{
    return kMessagePrefix + std::to_wstring(writer) + L"/" + std::to_wstring(index) +
           L"\r\nFaulting module name: load.dll";
}

int CrashNumber(int writer, int index)
{
    return writer * kCrashesPerWriter + index;
}

// Whether the host refuses a crash's attempt-th report (1-based). Decided from
// the crash and the attempt alone, so each crash's fate is fixed by the seed
// however the queries and deliveries interleave. A few crashes are troubled
// and refused most of the time, so many reach their third refusal.
bool RefusesAttempt(int crash, int attempt)
{
    const bool troubled = Mix(kSeed ^ static_cast<uint64_t>(crash)) % 100 < 5;
    const uint64_t roll = Mix((kSeed << 20) ^ (static_cast<uint64_t>(crash) << 4) ^ static_cast<uint64_t>(attempt));
    return roll % 100 < (troubled ? 85u : 4u);
}

// The host's sink for the crash metric. It refuses detail writes by
// RefusesAttempt and a seeded share of the flag writes, and checks as it goes
// that every report starts with the flag, numbers its details 1, 2, ..., and
// only ever writes the oldest unresolved crash of each writer.
class LoadSink final : public TestDispatchObject<IMetricValueSink> {
public:
    struct Crash {
        int attempts = 0;
        int refused = 0;
        int accepted = 0;
    };

    LoadSink() : crashes_(kCrashes), nextIndex_(kWriters, 0), flagRandom_(static_cast<unsigned>(kSeed)) {}

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved2() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved3() override { return E_NOTIMPL; }

    STDMETHODIMP WriteMetricValue(BSTR key, BSTR name, VARIANT* value) override
    {
        std::lock_guard lock(mutex_);
        ++writes_;
        const std::wstring keyText(key, ::SysStringLen(key));
        const std::wstring nameText(name, ::SysStringLen(name));
        if (value == nullptr || V_VT(value) != VT_BSTR) {
            Violation(L"a value that is not a BSTR under " + keyText);
            return S_OK;
        }
        const std::wstring text(V_BSTR(value), ::SysStringLen(V_BSTR(value)));
        if (keyText == kCrashFlagKey) {
            return WriteFlag(nameText, text);
        }
        if (keyText == kCrashDetailsKey) {
            return WriteDetail(nameText, text);
        }
        Violation(L"unexpected key " + keyText);
        return S_OK;
    }

    void AcceptEverything()
    {
        std::lock_guard lock(mutex_);
        draining_ = true;
    }

    std::vector<Crash> Crashes() const
    {
        std::lock_guard lock(mutex_);
        return crashes_;
    }
    std::vector<int> NextIndexes() const
    {
        std::lock_guard lock(mutex_);
        return nextIndex_;
    }
    std::vector<std::wstring> Violations() const
    {
        std::lock_guard lock(mutex_);
        return violations_;
    }
    size_t ViolationCount() const
    {
        std::lock_guard lock(mutex_);
        return violationCount_;
    }
    size_t Writes() const
    {
        std::lock_guard lock(mutex_);
        return writes_;
    }
    size_t FlagRefusals() const
    {
        std::lock_guard lock(mutex_);
        return flagRefusals_;
    }

private:
    HRESULT WriteFlag(const std::wstring& name, const std::wstring& text)
    {
        if (name != kCrashFlagKey || text != L"true") {
            Violation(L"flag written as " + name + L" = " + text);
        }
        position_ = 0;
        reportOpen_ = draining_ || flagRandom_() % 100 >= 3;
        if (!reportOpen_) {
            ++flagRefusals_;
            return kFlagRefused;
        }
        return S_OK;
    }

    HRESULT WriteDetail(const std::wstring& name, const std::wstring& text)
    {
        if (!reportOpen_) {
            Violation(L"a detail outside an accepted report: " + text.substr(0, 40));
        }
        ++position_;
        if (name != std::to_wstring(position_)) {
            Violation(L"detail " + name + L" at position " + std::to_wstring(position_));
        }
        int writer = -1;
        int index = -1;
        if (std::swscanf(text.c_str(), L"Load crash %d/%d", &writer, &index) != 2 || writer < 0 ||
            writer >= kWriters || index < 0 || index >= kCrashesPerWriter) {
            Violation(L"a detail of no crash written: " + text.substr(0, 60));
            return S_OK;
        }
        const std::wstring expectedStart = kMessagePrefix + std::to_wstring(writer) + L"/" + std::to_wstring(index) +
                                           L"<br />Faulting module name: load.dll<br />Crash Time: ";
        if (text.rfind(expectedStart, 0) != 0 || !text.ends_with(HostNamePart())) {
            Violation(L"detail text " + text);
        }
        // Reports take the oldest pending crash first, and a writer's crashes
        // arrive in the order it wrote them.
        if (index != nextIndex_[writer]) {
            Violation(L"crash " + std::to_wstring(writer) + L"/" + std::to_wstring(index) +
                      L" reported while " + std::to_wstring(nextIndex_[writer]) + L" was due");
        }
        Crash& crash = crashes_[CrashNumber(writer, index)];
        ++crash.attempts;
        if (crash.accepted != 0 || crash.refused >= static_cast<int>(kMaxReportFailures)) {
            Violation(L"crash " + std::to_wstring(writer) + L"/" + std::to_wstring(index) + L" written again");
        }
        if (!draining_ && RefusesAttempt(CrashNumber(writer, index), crash.attempts)) {
            ++crash.refused;
            if (crash.refused == static_cast<int>(kMaxReportFailures)) {
                ++nextIndex_[writer];  // dropped by the metric
            }
            return kDetailRefused;
        }
        ++crash.accepted;
        ++nextIndex_[writer];
        return S_OK;
    }

    void Violation(const std::wstring& what)
    {
        ++violationCount_;
        if (violations_.size() < 10) {
            violations_.push_back(what);
        }
    }

    mutable std::mutex mutex_;
    std::vector<Crash> crashes_;
    std::vector<int> nextIndex_;  // per writer: the oldest crash not yet resolved
    std::mt19937 flagRandom_;
    bool draining_ = false;
    bool reportOpen_ = false;
    uint32_t position_ = 0;
    size_t writes_ = 0;
    size_t flagRefusals_ = 0;
    size_t violationCount_ = 0;
    std::vector<std::wstring> violations_;
};

// The layering service's side of a log-on, written over and over by the churn writer.
const wchar_t* const kLayeringMessages[] = {
    L"User is logging in",
    L"Response 200 from Manager\r\nMOUNTED-READ;C:\\Tesseras\\office.vhdx;office-1\r\n",
    L"New volume event (mounted): \\\\?\\Volume{7} (VolumeType 2)",
    L"All volumes finished processing",
    L"User is logging off",
};

void WriteSimEvent(const wchar_t* channel, const wchar_t* publisher, USHORT id, const std::wstring& message,
                   std::atomic<long>& failures)
{
    const EVT_SIM_EVENT event{channel, publisher, id, FileTimeOf(2024, 2, 29, 23, 59, 58), message.c_str(), 0};
    if (::EvtSimWriteEvent(&event) != ERROR_SUCCESS) {
        ++failures;
    }
}

TEST(LoadTest, EveryCrashWrittenUnderLoadIsReportedOnceOrDroppedAfterItsThirdRefusal)
{
    for (const wchar_t* channel : {kCrashChannel, kChurnCrashChannel, kLayeringChannel}) {
        const DWORD added = ::EvtSimAddChannel(channel);
        ASSERT_TRUE(added == ERROR_SUCCESS || added == ERROR_ALREADY_EXISTS);
    }
    ServiceInstall service;
    MirrorComputerName(service.Registry());
    service.SetManager(L"manager.zeph.test:8443");
    service.WriteLog(L"Manager status 200 response\r\nMOUNTED-READ;C:\\Tesseras\\tools.vhdx;tools-1\r\n");

    const EVT_SIM_COUNTERS before = Counters();
    const LONG64 subscriptionsBefore = ::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION);
    const LONG64 renderContextsBefore = ::EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT);

    ComPtr<RecordingLogger> logger;
    logger = Adopt(new RecordingLogger(0x7));
    ComPtr<CountingHostContext> context;
    context = Adopt(new CountingHostContext());
    ComPtr<LoadSink> sink;
    sink = Adopt(new LoadSink());
    ComPtr<RecordingSink> churnSink;
    churnSink = Adopt(new RecordingSink());

    const unique_bstr crashName = Bstr(kAppCrashMetricName);
    const unique_bstr churnCrashName = Bstr(kChurnCrashName);
    const unique_bstr layeringName = Bstr(kQuillonMetricName);

    size_t queries = 0;
    size_t churnCycles = 0;
    long churnWrites = 0;
    std::atomic<long> writeFailures{0};
    std::vector<std::wstring> unexpectedResults;
    {
        ComPtr<IZephDataProvider> provider = NewProvider();
        ASSERT_TRUE(provider);
        ASSERT_EQ(provider->SetHostInterfaces(logger.Get(), context.Get()), S_OK);
        ASSERT_EQ(provider->SubscribeMetric(crashName.get(), MakeMetricConfig(kCrashChannel, kCrashQuery).Get()),
                  S_OK);

        std::vector<std::thread> writers;
        std::atomic<int> writersDone{0};
        for (int writer = 0; writer < kWriters; ++writer) {
            writers.emplace_back([writer, &writeFailures, &writersDone] {
                for (int index = 0; index < kCrashesPerWriter; ++index) {
                    WriteSimEvent(kCrashChannel, kCrashPublisher, 1000, CrashMessage(writer, index), writeFailures);
                    // Pace the writers a little so deliveries and queries interleave with them.
                    if (index % 4 == 3) {
                        ::Sleep(1);
                    }
                }
                ++writersDone;
            });
        }
        std::atomic<bool> churning{true};
        std::thread churnWriter([&] {
            // Stops with the crash writers, so the event log can go idle.
            for (long round = 0; churning && writersDone < kWriters && round < 200000; ++round) {
                WriteSimEvent(kLayeringChannel, L"drovesvc", 3, kLayeringMessages[round % 5], writeFailures);
                WriteSimEvent(kChurnCrashChannel, kCrashPublisher, 1000, L"churn crash", writeFailures);
                churnWrites += 2;
                ::Sleep(1);
            }
        });

        // The host's thread: one call at a time, as the host makes them.
        bool layeringSubscribed = false;
        bool churnCrashSubscribed = false;
        const ULONGLONG deadline = ::GetTickCount64() + kLoadDeadlineMs;
        bool timedOut = false;
        for (size_t round = 0;; ++round) {
            const HRESULT result = provider->QueryMetric(crashName.get(), static_cast<LONG_PTR>(round), sink.Get());
            ++queries;
            if (result != S_OK && result != kDetailRefused && result != kFlagRefused && unexpectedResults.size() < 10) {
                unexpectedResults.push_back(L"query " + std::to_wstring(round) + L": " + std::to_wstring(result));
            }
            if (round % 7 == 0) {
                if (layeringSubscribed) {
                    EXPECT_EQ(provider->QueryMetric(layeringName.get(), 0, churnSink.Get()), S_OK);
                    EXPECT_EQ(provider->UnsubscribeMetric(layeringName.get()), S_OK);
                    ++churnCycles;
                } else {
                    EXPECT_EQ(provider->SubscribeMetric(layeringName.get(),
                                                        MakeMetricConfig(kLayeringChannel, L"*").Get()),
                              S_OK);
                }
                layeringSubscribed = !layeringSubscribed;
            }
            if (round % 11 == 0) {
                if (churnCrashSubscribed) {
                    EXPECT_EQ(provider->QueryMetric(churnCrashName.get(), 0, churnSink.Get()), S_OK);
                    EXPECT_EQ(provider->UnsubscribeMetric(churnCrashName.get()), S_OK);
                    ++churnCycles;
                } else {
                    EXPECT_EQ(provider->SubscribeMetric(churnCrashName.get(),
                                                        MakeMetricConfig(kChurnCrashChannel, kCrashQuery).Get()),
                              S_OK);
                }
                churnCrashSubscribed = !churnCrashSubscribed;
            }
            if (writersDone == kWriters && ::EvtSimWaitForDeliveries(0)) {
                break;
            }
            if (::GetTickCount64() > deadline) {
                timedOut = true;
                break;
            }
            ::Sleep(1);
        }
        churning = false;
        churnWriter.join();
        for (std::thread& writer : writers) {
            writer.join();
        }
        ASSERT_FALSE(timedOut) << "the load did not finish within " << kLoadDeadlineMs / 1000 << " s";
        EXPECT_EQ(provider->UnsubscribeMetric(layeringName.get()), S_OK);
        EXPECT_EQ(provider->UnsubscribeMetric(churnCrashName.get()), S_OK);
        ASSERT_TRUE(::EvtSimWaitForDeliveries(60000)) << "deliveries did not finish within a minute";

        // Drain: the host now accepts everything, so one report takes what is
        // left and the next finds nothing.
        sink->AcceptEverything();
        bool drained = false;
        for (int attempt = 0; attempt < 5 && !drained; ++attempt) {
            const size_t writesBefore = sink->Writes();
            EXPECT_EQ(provider->QueryMetric(crashName.get(), 0, sink.Get()), S_OK);
            drained = sink->Writes() == writesBefore;
        }
        EXPECT_TRUE(drained) << "crashes still pending after the drain";
        EXPECT_EQ(logger->Texts().back(), L"No application crash available");
    }

    EXPECT_EQ(writeFailures, 0);
    EXPECT_EQ(unexpectedResults, std::vector<std::wstring>{});
    EXPECT_EQ(sink->ViolationCount(), 0u);
    EXPECT_EQ(sink->Violations(), std::vector<std::wstring>{});

    // Every crash: reported exactly once, or refused three times and dropped.
    size_t reported = 0;
    size_t dropped = 0;
    size_t detailRefusals = 0;
    size_t unaccounted = 0;
    const std::vector<LoadSink::Crash> crashes = sink->Crashes();
    for (size_t number = 0; number < crashes.size(); ++number) {
        const LoadSink::Crash& crash = crashes[number];
        detailRefusals += static_cast<size_t>(crash.refused);
        if (crash.accepted == 1 && crash.refused < static_cast<int>(kMaxReportFailures)) {
            ++reported;
        } else if (crash.accepted == 0 && crash.refused == static_cast<int>(kMaxReportFailures)) {
            ++dropped;
        } else if (++unaccounted <= 10) {
            ADD_FAILURE() << "crash " << number << ": attempts " << crash.attempts << ", refused " << crash.refused
                          << ", accepted " << crash.accepted;
        }
    }
    EXPECT_EQ(unaccounted, 0u);
    EXPECT_EQ(reported + dropped, static_cast<size_t>(kCrashes));
    EXPECT_EQ(sink->NextIndexes(), std::vector<int>(kWriters, kCrashesPerWriter));
    EXPECT_GT(dropped, 0u) << "the seed should make some crashes reach their third refusal";

    // One line per dropped crash, one per refused detail, one per refused flag.
    EXPECT_EQ(CountLines(*logger.Get(), LogLevel::Info, kDropLine), dropped);
    EXPECT_EQ(CountLines(*logger.Get(), LogLevel::Error,
                         FailureLine(L"Failed to collect metric 'appcrash|crash_details|*'.", kDetailRefused)),
              detailRefusals);
    EXPECT_EQ(CountLines(*logger.Get(), LogLevel::Error,
                         FailureLine(L"Failed to write metric flag 'appcrash|contained'.", kFlagRefused)),
              sink->FlagRefusals());

    // The event log: every write delivered, nothing after a close, nothing closed twice, nothing left open.
    const EVT_SIM_COUNTERS after = Counters();
    EXPECT_EQ(after.eventsWritten - before.eventsWritten, kCrashes + churnWrites);
    EXPECT_GE(after.deliveries - before.deliveries, kCrashes);
    EXPECT_EQ(after.deliveriesAfterClose, 0);
    EXPECT_EQ(after.doubleCloses, 0);
    EXPECT_EQ(after.unknownCloses, 0);
    EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION), subscriptionsBefore);
    EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT), renderContextsBefore);
    EXPECT_EQ(logger->References(), 1u);
    EXPECT_EQ(context->References(), 1u);

    std::printf("load: %d crashes from %d writers, %zu reported, %zu dropped after three refusals, "
                "%zu detail and %zu flag refusals, %zu queries, %zu subscribe/unsubscribe cycles, %ld churn events\n",
                kCrashes, kWriters, reported, dropped, detailRefusals, sink->FlagRefusals(), queries, churnCycles,
                churnWrites);
}

}  // namespace
}  // namespace zeph
