// The crash metric under load: writers fill the event log with crashes while
// the host queries every few milliseconds through a sink that refuses a seeded
// share of the writes, and other metrics are subscribed and unsubscribed beside
// it. Every crash written must end up accounted for exactly once.
#include "appcrash/app_crash_metric.h"
#include "config_element.h"
#include "provider/metric_factory.h"
#include "recording_sink.h"
#include "reliability_host.h"
#include "simulated_event_log.h"

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

constexpr int kWriters = 4;
constexpr int kCrashesPerWriter = 10000;
constexpr int kCrashes = kWriters * kCrashesPerWriter;
constexpr int kMaxFailures = static_cast<int>(kMaxReportFailures);
constexpr uint64_t kSeed = 20261121;
constexpr HRESULT kDetailRefused = static_cast<HRESULT>(0x80070005);
constexpr HRESULT kFlagRefused = static_cast<HRESULT>(0x80070015);
constexpr ULONGLONG kLoadDeadlineMs = 240000;

// Whether the host refuses a crash's attempt-th report: fixed by the seed
// however queries and deliveries interleave. A few troubled crashes are
// refused most of the time, so many reach their third refusal.
bool RefusesAttempt(int crash, int attempt)
{
    const bool troubled = Mix(kSeed ^ static_cast<uint64_t>(crash)) % 100 < 5;
    const uint64_t roll = Mix((kSeed << 20) ^ (static_cast<uint64_t>(crash) << 4) ^ static_cast<uint64_t>(attempt));
    return roll % 100 < (troubled ? 85u : 4u);
}

// Refuses detail writes by RefusesAttempt and a seeded share of the flags, and
// checks as it goes that every report opens with an accepted flag, numbers its
// details 1, 2, ... and only writes each writer's oldest unresolved crash.
class LoadSink final : public TestDispatchObject<IMetricValueSink> {
public:
    struct Crash {
        int attempts = 0;
        int refused = 0;
        int accepted = 0;
    };
    struct State {
        std::vector<Crash> crashes = std::vector<Crash>(kCrashes);
        std::vector<int> nextIndex = std::vector<int>(kWriters, 0);  // per writer: oldest unresolved crash
        size_t writes = 0;
        size_t flagRefusals = 0;
        std::vector<std::wstring> violations;  // the first ten
    };

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved2() override { return E_NOTIMPL; }
    STDMETHODIMP HostReserved3() override { return E_NOTIMPL; }

    STDMETHODIMP WriteMetricValue(BSTR key, BSTR name, VARIANT* value) override
    {
        std::lock_guard lock(mutex_);
        ++state_.writes;
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
    State Snapshot() const
    {
        std::lock_guard lock(mutex_);
        return state_;
    }

private:
    HRESULT WriteFlag(const std::wstring& name, const std::wstring& text)
    {
        if (name != kCrashFlagKey || text != L"true") {
            Violation(L"flag written as " + name + L" = " + text);
        }
        position_ = 0;
        reportOpen_ = draining_ || flagRandom_() % 100 >= 3;
        state_.flagRefusals += reportOpen_ ? 0 : 1;
        return reportOpen_ ? S_OK : kFlagRefused;
    }

    HRESULT WriteDetail(const std::wstring& name, const std::wstring& text)
    {
        if (!reportOpen_) {
            Violation(L"a detail outside an accepted report: " + text.substr(0, 40));
        }
        if (name != std::to_wstring(++position_)) {
            Violation(L"detail " + name + L" at position " + std::to_wstring(position_));
        }
        int writer = -1;
        int index = -1;
        if (std::swscanf(text.c_str(), L"Load crash %d/%d", &writer, &index) != 2 || writer < 0 ||
            writer >= kWriters || index < 0 || index >= kCrashesPerWriter) {
            Violation(L"a detail of no crash written: " + text.substr(0, 60));
            return S_OK;
        }
        const std::wstring id = std::to_wstring(writer) + L"/" + std::to_wstring(index);
        if (!text.starts_with(L"Load crash " + id + L"<br />Faulting module name: load.dll<br />Crash Time: ") ||
            !text.ends_with(HostNamePart())) {
            Violation(L"detail text " + text);
        }
        // Oldest pending first, and a writer's crashes arrive in the order written.
        if (index != state_.nextIndex[writer]) {
            Violation(L"crash " + id + L" reported while " + std::to_wstring(state_.nextIndex[writer]) + L" was due");
        }
        const int number = writer * kCrashesPerWriter + index;
        Crash& crash = state_.crashes[number];
        ++crash.attempts;
        if (crash.accepted != 0 || crash.refused >= kMaxFailures) {
            Violation(L"crash " + id + L" written again");
        }
        if (!draining_ && RefusesAttempt(number, crash.attempts)) {
            if (++crash.refused == kMaxFailures) {
                ++state_.nextIndex[writer];  // dropped by the metric
            }
            return kDetailRefused;
        }
        ++crash.accepted;
        ++state_.nextIndex[writer];
        return S_OK;
    }

    void Violation(const std::wstring& what)
    {
        if (state_.violations.size() < 10) {
            state_.violations.push_back(what);
        }
    }

    mutable std::mutex mutex_;
    State state_;
    std::mt19937 flagRandom_{static_cast<unsigned>(kSeed)};
    bool draining_ = false;
    bool reportOpen_ = false;
    uint32_t position_ = 0;
};

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
    failures += ::EvtSimWriteEvent(&event) == ERROR_SUCCESS ? 0 : 1;
}

// Subscribes name when it is not, else queries it into sink and unsubscribes it.
void Toggle(IZephDataProvider* provider, BSTR name, bool& subscribed, const wchar_t* channel, const wchar_t* query,
            IUnknown* sink, size_t& cycles)
{
    if (subscribed) {
        EXPECT_EQ(provider->QueryMetric(name, 0, sink), S_OK);
        EXPECT_EQ(provider->UnsubscribeMetric(name), S_OK);
        ++cycles;
    } else {
        EXPECT_EQ(provider->SubscribeMetric(name, MakeMetricConfig(channel, query).Get()), S_OK);
    }
    subscribed = !subscribed;
}

TEST(LoadTest, EveryCrashWrittenUnderLoadIsReportedOnceOrDroppedAfterItsThirdRefusal)
{
    AddChannels({kCrashChannel, kChurnCrashChannel, kLayeringChannel});
    ServiceInstall service;
    MirrorComputerName(service.Registry());
    service.SetManager(L"manager.zeph.test:8443");
    service.WriteLog(L"Manager status 200 response\r\nMOUNTED-READ;C:\\Tesseras\\tools.vhdx;tools-1\r\n");

    const EVT_SIM_COUNTERS before = Counters();
    const LONG64 subscriptionsBefore = ::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION);
    const LONG64 renderContextsBefore = ::EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT);
    const ComPtr<RecordingLogger> logger = Adopt(new RecordingLogger(0x7));
    const ComPtr<CountingHostContext> context = Adopt(new CountingHostContext());
    const ComPtr<LoadSink> sink = Adopt(new LoadSink());
    const ComPtr<RecordingSink> churnSink = Adopt(new RecordingSink());
    const unique_bstr crashName = MakeBstr(kAppCrashMetricName);
    const unique_bstr churnCrashName = MakeBstr(L"EVENTLOG|EVENTLOG_APPCRASH");  // a table entry of its own
    const unique_bstr layeringName = MakeBstr(kQuillonMetricName);

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
                    WriteSimEvent(kCrashChannel, kCrashPublisher, 1000,
                                  L"Load crash " + std::to_wstring(writer) + L"/" + std::to_wstring(index) +
                                      L"\r\nFaulting module name: load.dll",
                                  writeFailures);
                    if (index % 4 == 3) {
                        ::Sleep(1);  // so that deliveries and queries interleave with the writes
                    }
                }
                ++writersDone;
            });
        }
        std::thread churnWriter([&] {
            for (long round = 0; writersDone < kWriters && round < 200000; ++round) {
                WriteSimEvent(kLayeringChannel, L"drovesvc", 3, kLayeringMessages[round % 5], writeFailures);
                WriteSimEvent(kChurnCrashChannel, kCrashPublisher, 1000, L"churn crash", writeFailures);
                churnWrites += 2;
                ::Sleep(1);
            }
        });

        // The host's thread: one call at a time.
        bool layeringSubscribed = false;
        bool churnCrashSubscribed = false;
        const ULONGLONG deadline = ::GetTickCount64() + kLoadDeadlineMs;
        bool timedOut = false;
        for (size_t round = 0; !(writersDone == kWriters && ::EvtSimWaitForDeliveries(0)); ++round, ::Sleep(1)) {
            const HRESULT result = provider->QueryMetric(crashName.get(), static_cast<LONG_PTR>(round), sink.Get());
            ++queries;
            if (result != S_OK && result != kDetailRefused && result != kFlagRefused && unexpectedResults.size() < 10) {
                unexpectedResults.push_back(L"query " + std::to_wstring(round) + L": " + std::to_wstring(result));
            }
            if (round % 7 == 0) {
                Toggle(provider.Get(), layeringName.get(), layeringSubscribed, kLayeringChannel, L"*",
                       churnSink.Get(), churnCycles);
            }
            if (round % 11 == 0) {
                Toggle(provider.Get(), churnCrashName.get(), churnCrashSubscribed, kChurnCrashChannel, kCrashQuery,
                       churnSink.Get(), churnCycles);
            }
            if (::GetTickCount64() > deadline) {
                timedOut = true;
                break;
            }
        }
        writersDone = kWriters;  // stops the churn writer after a timeout too
        churnWriter.join();
        for (std::thread& writer : writers) {
            writer.join();
        }
        ASSERT_FALSE(timedOut) << "the load did not finish within " << kLoadDeadlineMs / 1000 << " s";
        EXPECT_EQ(provider->UnsubscribeMetric(layeringName.get()), S_OK);
        EXPECT_EQ(provider->UnsubscribeMetric(churnCrashName.get()), S_OK);
        WaitForDeliveries();

        // Drain: with everything accepted one report takes what is left, the next finds nothing.
        sink->AcceptEverything();
        bool drained = false;
        for (int attempt = 0; attempt < 5 && !drained; ++attempt) {
            const size_t writesBefore = sink->Snapshot().writes;
            EXPECT_EQ(provider->QueryMetric(crashName.get(), 0, sink.Get()), S_OK);
            drained = sink->Snapshot().writes == writesBefore;
        }
        EXPECT_TRUE(drained) << "crashes still pending after the drain";
        EXPECT_EQ(logger->Texts().back(), L"No application crash available");
    }

    const LoadSink::State state = sink->Snapshot();
    EXPECT_EQ(writeFailures, 0);
    EXPECT_EQ(unexpectedResults, std::vector<std::wstring>{});
    EXPECT_EQ(state.violations, std::vector<std::wstring>{});

    // Every crash: reported exactly once, or refused three times and dropped.
    size_t reported = 0;
    size_t dropped = 0;
    size_t detailRefusals = 0;
    size_t unaccounted = 0;
    for (size_t number = 0; number < state.crashes.size(); ++number) {
        const LoadSink::Crash& crash = state.crashes[number];
        detailRefusals += static_cast<size_t>(crash.refused);
        if (crash.accepted == 1 && crash.refused < kMaxFailures) {
            ++reported;
        } else if (crash.accepted == 0 && crash.refused == kMaxFailures) {
            ++dropped;
        } else if (++unaccounted <= 10) {
            ADD_FAILURE() << "crash " << number << ": attempts " << crash.attempts << ", refused " << crash.refused
                          << ", accepted " << crash.accepted;
        }
    }
    EXPECT_EQ(unaccounted, 0u);
    EXPECT_EQ(reported + dropped, static_cast<size_t>(kCrashes));
    EXPECT_EQ(state.nextIndex, std::vector<int>(kWriters, kCrashesPerWriter));
    EXPECT_GT(dropped, 0u) << "the seed should make some crashes reach their third refusal";

    // One line per dropped crash, per refused detail and per refused flag.
    EXPECT_EQ(CountLines(*logger.Get(), LogLevel::Info,
                         L"Collecting metric has exceeded max failure times. Delete event from list ''"),
              dropped);
    EXPECT_EQ(CountLines(*logger.Get(), LogLevel::Error,
                         FailureLine(L"Failed to collect metric 'appcrash|crash_details|*'.", kDetailRefused)),
              detailRefusals);
    EXPECT_EQ(CountLines(*logger.Get(), LogLevel::Error,
                         FailureLine(L"Failed to write metric flag 'appcrash|contained'.", kFlagRefused)),
              state.flagRefusals);

    // Every write delivered, none after a close, nothing closed twice or left open.
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
                kCrashes, kWriters, reported, dropped, detailRefusals, state.flagRefusals, queries, churnCycles,
                churnWrites);
}

}  // namespace
}  // namespace zeph
