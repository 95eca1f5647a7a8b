// Teardown with deliveries in flight: providers released with their metrics subscribed,
// or after queries and unsubscribing some or all, hundreds of times while a writer keeps
// both channels busy.
#include "appcrash/app_crash_metric.h"
#include "com/com_object.h"
#include "config_element.h"
#include "layering_env.h"
#include "provider/metric_factory.h"
#include "provider/provider.h"
#include "support/host_logger.h"
#include "support/host_value_sink.h"
#include "simulated_event_log.h"
#include "win/com_strings.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;

constexpr wchar_t kCrashChannel[] = L"ZephRaceCrashes";
constexpr wchar_t kLayeringChannel[] = L"ZephRaceLayering";
constexpr wchar_t kCrashQuery[] = L"*[System[Provider[@Name='Application Error']]]";
constexpr int kRounds = 300;
constexpr int kTeardowns = 5;  // the cases of the switch below

const wchar_t* const kLayeringMessages[] = {
    L"User is logging in",
    L"Response 200 from Manager\r\nMOUNTED-READ;C:\\Tesseras\\race.vhdx;race-1\r\n",
    L"New volume finished processing, VolumeType: 2",
    L"Last volume loaded",
    L"User is logging out",
};

TEST(TeardownRaceTest, NoDeliveryReachesAMetricAfterItsProviderOrSubscriptionIsGone)
{
    for (const wchar_t* channel : {kCrashChannel, kLayeringChannel}) {
        ASSERT_EQ(::EvtSimAddChannel(channel), static_cast<DWORD>(ERROR_SUCCESS));
    }
    ServiceInstall service;
    service.SetManager(L"manager.zeph.test");
    service.WriteLog(L"Manager status 200 response\r\nMOUNTED-READ;C:\\Tesseras\\log.vhdx;log-1\r\n");

    const EVT_SIM_COUNTERS before = Counters();
    const LONG64 subscriptionsBefore = ::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION);
    const LONG64 renderContextsBefore = ::EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT);

    // Keeps a delivery in flight on both channels nearly all the time.
    std::atomic<long> writeFailures{0};
    std::jthread writer([&](std::stop_token stop) {  // stopped and joined on any way out
        const ULONGLONG time = FileTimeOf(2023, 12, 31, 23, 59, 59);
        for (long i = 0; !stop.stop_requested() && i < 5000000; ++i) {
            const EVT_SIM_EVENT crash{kCrashChannel, kCrashPublisher, 1000, time, L"race crash\r\nsecond line", 0};
            const EVT_SIM_EVENT layering{kLayeringChannel, L"drovesvc", 3, time, kLayeringMessages[i % 5], 0};
            if (::EvtSimWriteEvent(&crash) != ERROR_SUCCESS || ::EvtSimWriteEvent(&layering) != ERROR_SUCCESS) {
                ++writeFailures;
            }
            if (i % 4 == 3) {
                ::Sleep(1);
            }
        }
    });

    const ComPtr<HostContext> context = Adopt(new HostContext());
    const ComPtr<HostValueSink> sink = Adopt(new HostValueSink());
    const unique_bstr crashName = MakeBstr(kAppCrashMetricName);
    const unique_bstr layeringName = MakeBstr(kQuillonMetricName);
    const auto subscribe = [&](IZephDataProvider* provider, BSTR name, const wchar_t* channel, const wchar_t* query) {
        return provider->SubscribeMetric(name, MakeMetricConfig(channel, query).Get());
    };

    std::vector<ComPtr<HostLogger>> loggers;  // one per round
    std::vector<size_t> linesAtRelease;
    for (int round = 0; round < kRounds; ++round) {
        const ComPtr<HostLogger>& logger = loggers.emplace_back(Adopt(new HostLogger(0x7)));
        ComPtr<IZephDataProvider> provider;
        ASSERT_EQ(ComObject<CProvider>::Create(IID_PPV_ARGS(&provider)), S_OK);
        ASSERT_EQ(provider->SetHostInterfaces(logger.Get(), context.Get()), S_OK);
        const LONG64 deliveriesAtStart = Counters().deliveries;
        ASSERT_EQ(subscribe(provider.Get(), crashName.get(), kCrashChannel, kCrashQuery), S_OK);
        ASSERT_EQ(subscribe(provider.Get(), layeringName.get(), kLayeringChannel, L"*"), S_OK);
        // Both metrics busy: some deliveries done, more queued behind them.
        for (const ULONGLONG deadline = ::GetTickCount64() + 10000; Counters().deliveries < deliveriesAtStart + 6;) {
            ASSERT_LT(::GetTickCount64(), deadline) << "no deliveries in round " << round;
            ::Sleep(1);
        }

        switch (round % kTeardowns) {
        case 0:  // released as it is
            break;
        case 1:
            EXPECT_EQ(provider->UnsubscribeMetric(crashName.get()), S_OK);
            EXPECT_EQ(provider->QueryMetric(layeringName.get(), 0, sink.Get()), S_OK);
            break;
        case 2:
            EXPECT_EQ(provider->QueryMetric(crashName.get(), 0, sink.Get()), S_OK);
            EXPECT_EQ(provider->UnsubscribeAllMetrics(), S_OK);
            break;
        case 3:
            EXPECT_EQ(provider->UnsubscribeMetric(layeringName.get()), S_OK);
            EXPECT_EQ(subscribe(provider.Get(), layeringName.get(), kLayeringChannel, L"*"), S_OK);
            EXPECT_EQ(provider->UnsubscribeMetric(crashName.get()), S_OK);
            break;
        default:  // the object is free-threaded: the last release may come from any thread
            std::thread([released = std::move(provider)]() mutable { released.Reset(); }).join();
            break;
        }
        provider.Reset();

        // Metrics, collectors and subscriptions went with the release, and every host reference with them.
        EXPECT_EQ(logger->References(), 1u) << "round " << round;
        EXPECT_EQ(context->References(), 1u) << "round " << round;
        linesAtRelease.push_back(logger->Lines().size());
    }

    writer.request_stop();
    writer.join();
    WaitForDeliveries();

    EXPECT_EQ(writeFailures, 0);
    // A delivery after its round's release would have logged to that round's logger.
    for (size_t round = 0; round < loggers.size(); ++round) {
        EXPECT_EQ(loggers[round]->Lines().size(), linesAtRelease[round]) << "round " << round;
    }
    const EVT_SIM_COUNTERS after = Counters();
    EXPECT_EQ(after.deliveriesAfterClose, 0);
    EXPECT_EQ(after.doubleCloses, 0);
    EXPECT_EQ(after.unknownCloses, 0);
    const LONG64 opened = after.opened[EVT_SIM_KIND_SUBSCRIPTION] - before.opened[EVT_SIM_KIND_SUBSCRIPTION];
    EXPECT_EQ(opened, kRounds * 2 + kRounds / kTeardowns);
    EXPECT_EQ(after.closed[EVT_SIM_KIND_SUBSCRIPTION] - before.closed[EVT_SIM_KIND_SUBSCRIPTION], opened);
    EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION), subscriptionsBefore);
    EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT), renderContextsBefore);
}

}  // namespace
}  // namespace zeph
