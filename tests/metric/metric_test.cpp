#include "config_element.h"
#include "metric/event_log_handle.h"
#include "metric/event_log_reader.h"
#include "metric/metric.h"
#include "recording_logger.h"
#include "simulated_event_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zeph {
namespace {

using namespace test;

constexpr wchar_t kTestChannel[] = L"Application";
constexpr wchar_t kPublisher[] = L"Metric Test";
constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070490);

struct Delivery {
    USHORT eventId = 0;
    std::wstring message;
    DWORD threadId = 0;
};

// Records what reaches ParseEventLog, reading each event the way the real
// metrics do: a render context per event, the publisher's metadata, the message.
class RecordingMetric final : public CMetric {
public:
    explicit RecordingMetric(IProviderLogger* logger = nullptr) : CMetric(L"test|recording", logger, nullptr) {}
    ~RecordingMetric() override { StopDeliveries(); }

    HRESULT CollectMetric(IMetricValueSink*, LONG_PTR) override { return S_OK; }

    std::vector<Delivery> Deliveries()
    {
        std::lock_guard lock(mutex_);
        return deliveries_;
    }

protected:
    void ParseEventLog(EVT_HANDLE event) override
    {
        static constexpr const wchar_t* kPaths[] = {L"Event/System/EventID"};
        std::lock_guard lock(mutex_);
        Delivery delivery;
        delivery.threadId = ::GetCurrentThreadId();
        unique_evt_handle context;
        // What the deliveries saw is all this recorder checks.
        (void)RenderEventValues(*context.put(), event, kPaths, 1,
                          [&](PEVT_VARIANT& values) { delivery.eventId = values[0].UInt16Val; });
        unique_evt_handle publisher(::EvtOpenPublisherMetadata(nullptr, kPublisher, nullptr, 0, 0));
        (void)FormatEventMessage(publisher.get(), event, [&](const wchar_t* message) { delivery.message = message; });
        deliveries_.push_back(delivery);
    }

private:
    std::mutex mutex_;
    std::vector<Delivery> deliveries_;
};

class MetricTest : public ::testing::Test {
protected:
    void SetUp() override { ::EvtSimResetCounters(); }
    void TearDown() override
    {
        WaitForDeliveries();
        const EVT_SIM_COUNTERS counters = Counters();
        EXPECT_EQ(counters.doubleCloses, 0);
        EXPECT_EQ(counters.unknownCloses, 0);
        EXPECT_EQ(counters.deliveriesAfterClose, 0);
    }

    Microsoft::WRL::ComPtr<RecordingLogger> logger_ = Adopt(new RecordingLogger(0x7));
};

// More malformed configurations go through the provider in tests/reliability.
TEST_F(MetricTest, AMissingPropertyIsLoggedAndStopsTheSubscribeThere)
{
    RecordingMetric noChannel(logger_.Get());
    EXPECT_EQ(noChannel.Subscribe(MakeConfigElement(L"<metric><query>*</query></metric>").Get()), kNotFound);
    EXPECT_TRUE(noChannel.Query().empty()) << "the query is not read";
    RecordingMetric noQuery(logger_.Get());
    EXPECT_EQ(noQuery.Subscribe(MakeConfigElement(L"<metric><channel>System</channel></metric>").Get()), kNotFound);
    EXPECT_EQ(noQuery.Channel(), L"System");
    EXPECT_EQ(noQuery.SubscriptionHandle(), nullptr);
    EXPECT_EQ(logger_->Lines(), (std::vector<LogLine>{
                                    {LogLevel::Error, L"Property 'channel' was not found in the configuration."},
                                    {LogLevel::Error, L"Property 'query' was not found in the configuration."}}));
    EXPECT_EQ(Counters().opened[EVT_SIM_KIND_SUBSCRIPTION], 0);
}

TEST_F(MetricTest, ChannelsAndQueriesTheEventLogRejectsStillSubscribe)
{
    for (const auto& [channel, query] : std::vector<std::pair<std::wstring, std::wstring>>{
             {L"", L"*"}, {L"No Such Channel", L"*"}, {L"Application", L"*[System[Nonsense"}}) {
        RecordingMetric metric(logger_.Get());
        EXPECT_EQ(metric.Subscribe(MakeMetricConfig(channel, query).Get()), S_OK) << channel << L" " << query;
        EXPECT_EQ(metric.Channel(), channel);
        EXPECT_EQ(metric.Query(), query);
        EXPECT_EQ(metric.SubscriptionHandle(), nullptr);
        EXPECT_EQ(metric.Unsubscribe(), S_OK);
    }
    EXPECT_TRUE(logger_->Lines().empty());
    EXPECT_EQ(Counters().closed[EVT_SIM_KIND_SUBSCRIPTION], 0);
}

TEST_F(MetricTest, SubscriptionErrorsReturnTheEventLogsCodeAsAnHResult)
{
    EventLogSubscription subscription;
    EXPECT_EQ(subscription.Subscribe(L"No Such Channel", L"*", [](EVT_HANDLE, int) {}),
              static_cast<HRESULT>(0x80073A9F));
    EXPECT_EQ(subscription.Handle(), nullptr);
    EXPECT_EQ(subscription.Subscribe(kTestChannel, L"*[", [](EVT_HANDLE, int) {}), static_cast<HRESULT>(0x80073A99));
    EXPECT_EQ(subscription.Subscribe(kTestChannel, L"*", [](EVT_HANDLE, int) {}), S_OK);
    EXPECT_NE(subscription.Handle(), nullptr);
    subscription.Close();
    subscription.Close();
    EXPECT_EQ(Counters().closed[EVT_SIM_KIND_SUBSCRIPTION], 1);
}

TEST_F(MetricTest, DeliveriesReachParseEventLogInOrderOnTheEventLogsThread)
{
    RecordingMetric metric(logger_.Get());
    ASSERT_EQ(metric.Subscribe(MakeMetricConfig(kTestChannel, L"*[System[Provider[@Name='Metric Test']]]").Get()),
              S_OK);
    ASSERT_NE(metric.SubscriptionHandle(), nullptr);
    for (USHORT id = 1; id <= 200; ++id) {
        WriteEvent(kTestChannel, kPublisher, id, 0, L"message " + std::to_wstring(id));
    }
    WriteEvent(kTestChannel, L"Someone Else", 999, 0, L"filtered out");
    ::EvtSimDeliverError(kTestChannel, ERROR_EVT_QUERY_RESULT_STALE);  // action 0: dropped
    WaitForDeliveries();

    const auto deliveries = metric.Deliveries();
    ASSERT_EQ(deliveries.size(), 200u);
    for (USHORT id = 1; id <= 200; ++id) {
        EXPECT_EQ(deliveries[id - 1].eventId, id);
        EXPECT_EQ(deliveries[id - 1].message, L"message " + std::to_wstring(id));
        EXPECT_NE(deliveries[id - 1].threadId, ::GetCurrentThreadId());
    }
    EXPECT_EQ(Counters().errorDeliveries, 1);

    EXPECT_EQ(metric.Unsubscribe(), S_OK);
    EXPECT_EQ(metric.Unsubscribe(), S_OK);
    WriteEvent(kTestChannel, kPublisher, 1, 0, L"after unsubscribe");
    WaitForDeliveries();
    EXPECT_EQ(metric.Deliveries().size(), 200u);

    const EVT_SIM_COUNTERS counters = Counters();
    EXPECT_EQ(counters.opened[EVT_SIM_KIND_SUBSCRIPTION], 1);
    EXPECT_EQ(counters.closed[EVT_SIM_KIND_SUBSCRIPTION], 1);
    EXPECT_EQ(counters.opened[EVT_SIM_KIND_RENDER_CONTEXT], 200);
    EXPECT_EQ(counters.closed[EVT_SIM_KIND_RENDER_CONTEXT], 200);
}

// The reader functions, called from inside a real delivery.
TEST_F(MetricTest, ReadersRenderValuesAndFormatWholeMessagesOrReportWhyNot)
{
    static constexpr const wchar_t* kPaths[] = {L"Event/System/EventID", L"Event/System/TimeCreated/@SystemTime",
                                                L"Event/System/Unknown"};
    const std::wstring longMessage(70000, L'x');
    for (const auto& row : {std::pair{longMessage, 0u}, std::pair{std::wstring(), 0u},
                            std::pair{std::wstring(L"unformattable"), EVT_SIM_UNFORMATTABLE}}) {
        const std::wstring& message = row.first;  // not a structured binding: lambdas capture it
        const auto flags = row.second;
        EventLogSubscription subscription;
        std::atomic<int> calls{0};
        ASSERT_EQ(subscription.Subscribe(kTestChannel, L"*", [&](EVT_HANDLE event, int action) {
            ASSERT_EQ(action, EvtSubscribeActionDeliver);
            EVT_HANDLE context = nullptr;
            int rendered = 0;
            for (int pass = 0; pass < 2; ++pass) {  // the second pass reuses the context made by the first
                EXPECT_EQ(RenderEventValues(context, event, kPaths, 3, [&](PEVT_VARIANT& values) {
                    ++rendered;
                    EXPECT_EQ(values[0].Type, static_cast<DWORD>(EvtVarTypeUInt16));
                    EXPECT_EQ(values[0].UInt16Val, 4242);
                    EXPECT_EQ(values[1].Type, static_cast<DWORD>(EvtVarTypeFileTime));
                    EXPECT_EQ(values[1].FileTimeVal, 0x01D7135C2A3B4C5DULL);
                    EXPECT_EQ(values[2].Type, static_cast<DWORD>(EvtVarTypeNull));
                }), static_cast<DWORD>(ERROR_SUCCESS));
            }
            EXPECT_EQ(rendered, 2);
            ::EvtClose(context);

            unique_evt_handle publisher(::EvtOpenPublisherMetadata(nullptr, kPublisher, nullptr, 0, 0));
            std::wstring formatted = L"untouched";
            EXPECT_EQ(FormatEventMessage(publisher.get(), event, [&](const wchar_t* text) { formatted = text; }),
                      static_cast<DWORD>(flags != 0 ? ERROR_EVT_MESSAGE_NOT_FOUND : ERROR_SUCCESS));
            EXPECT_EQ(formatted, flags != 0 ? L"untouched" : message);
            ++calls;
        }), S_OK);
        WriteEvent(kTestChannel, kPublisher, 4242, 0x01D7135C2A3B4C5DULL, message, flags);
        WaitForDeliveries();
        EXPECT_EQ(calls, 1);
    }
    EXPECT_EQ(Counters().opened[EVT_SIM_KIND_RENDER_CONTEXT], 3);
}

// Each delivery looks at a member that marks its own destruction: deliveries
// must stop before a metric's members go. The provider-level races are in
// tests/reliability.
class TeardownMetric final : public CMetric {
public:
    TeardownMetric() : CMetric(L"test|teardown", nullptr, nullptr) {}
    ~TeardownMetric() override { StopDeliveries(); }
    HRESULT CollectMetric(IMetricValueSink*, LONG_PTR) override { return S_OK; }

    static inline std::atomic<int> deliveries{0};
    static inline std::atomic<int> deliveriesIntoDestroyedMembers{0};

protected:
    void ParseEventLog(EVT_HANDLE) override
    {
        ++deliveries;
        for (int look = 0; look < 2; ++look, std::this_thread::yield()) {
            deliveriesIntoDestroyedMembers += state_.gone ? 1 : 0;
        }
    }

private:
    struct State {
        std::atomic<bool> gone{false};
        ~State()
        {
            gone = true;
            ::Sleep(1);  // time for a delivery that should not be running to run into it
        }
    } state_;
};

TEST_F(MetricTest, AMetricDestroyedMidDeliveryNeverSeesADeliveryAfterItsSubscriptionCloses)
{
    std::atomic<bool> writing{true};
    std::thread writer([&] {
        const EVT_SIM_EVENT event = {kTestChannel, kPublisher, 1, 0, L"busy", 0};
        while (writing) {
            ::EvtSimWriteEvent(&event);
        }
    });
    constexpr int kRounds = 300;
    int roundsWithoutDelivery = 0;
    for (int round = 0; round < kRounds; ++round) {
        TeardownMetric::deliveries = 0;
        auto metric = std::make_unique<TeardownMetric>();
        EXPECT_EQ(metric->Subscribe(MakeMetricConfig(kTestChannel, L"*").Get()), S_OK);
        for (const ULONGLONG deadline = ::GetTickCount64() + 10000;
             TeardownMetric::deliveries == 0 && ::GetTickCount64() < deadline;) {
            std::this_thread::yield();
        }
        roundsWithoutDelivery += TeardownMetric::deliveries == 0 ? 1 : 0;
    }
    writing = false;
    writer.join();
    WaitForDeliveries();
    EXPECT_EQ(roundsWithoutDelivery, 0);
    EXPECT_EQ(TeardownMetric::deliveriesIntoDestroyedMembers, 0);
    EXPECT_EQ(Counters().closed[EVT_SIM_KIND_SUBSCRIPTION], kRounds);
}

}  // namespace
}  // namespace zeph
