// Teardown while deliveries are in flight: the provider released with its
// metrics subscribed, and metrics unsubscribed one by one or all at once,
// hundreds of times while a writer keeps both channels busy.
#include "app_crash_metric.h"
#include "config_element.h"
#include "layering_env.h"
#include "metric_factory.h"
#include "recording_logger.h"
#include "recording_sink.h"
#include "reliability_host.h"
#include "simulated_event_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;

constexpr wchar_t kRaceCrashChannel[] = L"ZephRaceCrashes";
constexpr wchar_t kRaceLayeringChannel[] = L"ZephRaceLayering";
constexpr wchar_t kCrashQuery[] = L"*[System[Provider[@Name='Application Error']]]";

constexpr int kRounds = 600;

enum class Teardown {
    ReleaseWithBothSubscribed,
    UnsubscribeCrashThenRelease,
    UnsubscribeAllThenRelease,
    ResubscribeLayeringThenRelease,
    ReleaseOnAnotherThread,
    kCount,
};

const wchar_t* const kLayeringMessages[] = {
    L"User is logging in",
    L"Response 200 from Manager\r\nMOUNTED-READ;C:\\Tesseras\\race.vhdx;race-1\r\n",
    L"New volume finished processing, VolumeType: 2",
    L"Last volume loaded",
    L"User is logging out",
};

TEST(TeardownRaceTest, NoDeliveryReachesAMetricAfterItsProviderOrSubscriptionIsGone)
{
    for (const wchar_t* channel : {kRaceCrashChannel, kRaceLayeringChannel}) {
        const DWORD added = ::EvtSimAddChannel(channel);
        ASSERT_TRUE(added == ERROR_SUCCESS || added == ERROR_ALREADY_EXISTS);
    }
    ServiceInstall service;
    MirrorComputerName(service.Registry());
    service.SetManager(L"manager.zeph.test");
    service.WriteLog(L"Manager status 200 response\r\nMOUNTED-READ;C:\\Tesseras\\log.vhdx;log-1\r\n");

    const EVT_SIM_COUNTERS before = Counters();
    const LONG64 subscriptionsBefore = ::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION);
    const LONG64 renderContextsBefore = ::EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT);

    // A writer that keeps a delivery in flight on both channels nearly all the time.
    std::atomic<bool> writing{true};
    std::atomic<long> writeFailures{0};
    std::thread writer([&] {
        const ULONGLONG time = FileTimeOf(2023, 12, 31, 23, 59, 59);
        for (long i = 0; writing && i < 5000000; ++i) {
            const EVT_SIM_EVENT crash{kRaceCrashChannel, kCrashPublisher, 1000, time, L"race crash\r\nsecond line", 0};
            const EVT_SIM_EVENT layering{kRaceLayeringChannel, L"drovesvc", 3, time, kLayeringMessages[i % 5], 0};
            if (::EvtSimWriteEvent(&crash) != ERROR_SUCCESS || ::EvtSimWriteEvent(&layering) != ERROR_SUCCESS) {
                ++writeFailures;
            }
            if (i % 4 == 3) {
                ::Sleep(1);
            }
        }
    });

    ComPtr<CountingHostContext> context;
    context = Adopt(new CountingHostContext());
    ComPtr<RecordingSink> sink;
    sink = Adopt(new RecordingSink());
    const unique_bstr crashName = Bstr(kAppCrashMetricName);
    const unique_bstr layeringName = Bstr(kQuillonMetricName);

    struct Round {
        ComPtr<RecordingLogger> logger;
        size_t linesAtRelease = 0;
    };
    std::vector<Round> rounds(kRounds);
    int roundsWithoutDelivery = 0;
    for (int index = 0; index < kRounds; ++index) {
        Round& round = rounds[index];
        round.logger = Adopt(new RecordingLogger(0x7));
        const auto teardown = static_cast<Teardown>(index % static_cast<int>(Teardown::kCount));

        ComPtr<IZephDataProvider> provider = NewProvider();
        ASSERT_TRUE(provider);
        ASSERT_EQ(provider->SetHostInterfaces(round.logger.Get(), context.Get()), S_OK);
        const LONG64 deliveriesAtStart = Counters().deliveries;
        ASSERT_EQ(provider->SubscribeMetric(crashName.get(), MakeMetricConfig(kRaceCrashChannel, kCrashQuery).Get()),
                  S_OK);
        ASSERT_EQ(provider->SubscribeMetric(layeringName.get(), MakeMetricConfig(kRaceLayeringChannel, L"*").Get()),
                  S_OK);
        // Both metrics busy: some deliveries done, more queued behind them.
        if (!WaitUntil([&] { return Counters().deliveries >= deliveriesAtStart + 6; }, 10000)) {
            ++roundsWithoutDelivery;
        }

        switch (teardown) {
        case Teardown::ReleaseWithBothSubscribed:
            break;
        case Teardown::UnsubscribeCrashThenRelease:
            EXPECT_EQ(provider->UnsubscribeMetric(crashName.get()), S_OK);
            EXPECT_EQ(provider->QueryMetric(layeringName.get(), 0, sink.Get()), S_OK);
            break;
        case Teardown::UnsubscribeAllThenRelease:
            EXPECT_EQ(provider->QueryMetric(crashName.get(), 0, sink.Get()), S_OK);
            EXPECT_EQ(provider->UnsubscribeAllMetrics(), S_OK);
            break;
        case Teardown::ResubscribeLayeringThenRelease:
            EXPECT_EQ(provider->UnsubscribeMetric(layeringName.get()), S_OK);
            EXPECT_EQ(provider->SubscribeMetric(layeringName.get(),
                                                MakeMetricConfig(kRaceLayeringChannel, L"*").Get()),
                      S_OK);
            EXPECT_EQ(provider->UnsubscribeMetric(crashName.get()), S_OK);
            break;
        case Teardown::ReleaseOnAnotherThread:
            // The object is free-threaded: the last release may come from any thread.
            std::thread([released = std::move(provider)]() mutable { released.Reset(); }).join();
            break;
        case Teardown::kCount:
            break;
        }
        provider.Reset();

        // Metrics, their collectors and subscriptions are gone with the release,
        // and with them every reference to the host's objects.
        EXPECT_EQ(round.logger->References(), 1u) << "round " << index;
        EXPECT_EQ(context->References(), 1u) << "round " << index;
        round.linesAtRelease = round.logger->Lines().size();
    }

    writing = false;
    writer.join();
    ASSERT_TRUE(::EvtSimWaitForDeliveries(60000)) << "deliveries did not finish within a minute";

    EXPECT_EQ(writeFailures, 0);
    EXPECT_EQ(roundsWithoutDelivery, 0);
    // A delivery that ran after its round's release would have logged to that round's logger.
    for (int index = 0; index < kRounds; ++index) {
        EXPECT_EQ(rounds[index].logger->Lines().size(), rounds[index].linesAtRelease) << "round " << index;
    }
    const EVT_SIM_COUNTERS after = Counters();
    EXPECT_EQ(after.deliveriesAfterClose, 0);
    EXPECT_EQ(after.doubleCloses, 0);
    EXPECT_EQ(after.unknownCloses, 0);
    const LONG64 subscriptionsOpened =
        after.opened[EVT_SIM_KIND_SUBSCRIPTION] - before.opened[EVT_SIM_KIND_SUBSCRIPTION];
    EXPECT_EQ(subscriptionsOpened, kRounds * 2 + kRounds / static_cast<int>(Teardown::kCount));
    EXPECT_EQ(after.closed[EVT_SIM_KIND_SUBSCRIPTION] - before.closed[EVT_SIM_KIND_SUBSCRIPTION],
              subscriptionsOpened);
    EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION), subscriptionsBefore);
    EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT), renderContextsBefore);
    EXPECT_EQ(context->References(), 1u);

    std::printf("teardown races: %d rounds, %lld subscriptions closed mid-delivery, %lld deliveries\n", kRounds,
                static_cast<long long>(subscriptionsOpened),
                static_cast<long long>(after.deliveries - before.deliveries));
}

}  // namespace
}  // namespace zeph
