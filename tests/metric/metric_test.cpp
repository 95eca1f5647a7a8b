// CMetric's configuration and subscription on the simulated event log. Rendering and
// formatting events are checked through the metrics that read them.
#include "config_element.h"
#include "metric/metric.h"
#include "support/host_logger.h"
#include "simulated_event_log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <vector>

namespace zeph {
namespace {

using namespace test;

constexpr wchar_t kTestChannel[] = L"Application";
constexpr wchar_t kPublisher[] = L"Metric Test";
constexpr HRESULT kNotFound = static_cast<HRESULT>(0x80070490);

// Counts what reaches ParseEventLog.
class RecordingMetric final : public CMetric {
public:
    explicit RecordingMetric(IProviderLogger* logger = nullptr) : CMetric(L"test|recording", logger, nullptr) {}
    ~RecordingMetric() override { StopDeliveries(); }
    HRESULT CollectMetric(IMetricValueSink*, LONG_PTR) override { return S_OK; }

    std::atomic<int> parsed{0};

protected:
    void ParseEventLog(EVT_HANDLE) override { ++parsed; }
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

    Microsoft::WRL::ComPtr<HostLogger> logger_ = Adopt(new HostLogger(0x7));
};

TEST_F(MetricTest, AMissingPropertyIsLoggedAndStopsTheSubscribeThere)
{
    RecordingMetric noChannel(logger_.Get());
    EXPECT_EQ(noChannel.Subscribe(MakeConfigElement(L"<metric><query>*</query></metric>").Get()), kNotFound);
    EXPECT_TRUE(noChannel.Query().empty()) << "the query is not read";
    RecordingMetric noQuery(logger_.Get());
    EXPECT_EQ(noQuery.Subscribe(MakeConfigElement(L"<metric><channel>System</channel></metric>").Get()), kNotFound);
    EXPECT_EQ(noQuery.Channel(), L"System");
    EXPECT_EQ(noQuery.SubscriptionHandle(), nullptr);
    EXPECT_EQ(logger_->Lines(),
              (std::vector<LogLine>{{LogLevel::Error, L"Property 'channel' was not found in the configuration."},
                                    {LogLevel::Error, L"Property 'query' was not found in the configuration."}}));
    EXPECT_EQ(Counters().opened[EVT_SIM_KIND_SUBSCRIPTION], 0);
}

TEST_F(MetricTest, PropertiesAreTheTextOfTheFirstChildOfThatName)
{
    const std::pair<const wchar_t*, const wchar_t*> configs[] = {
        {L"<metric><channel><![CDATA[Sys]]>tem</channel><query>*</query></metric>", L"System"},
        {L"<metric><channel>First</channel><channel>Second</channel><query>*</query></metric>", L"First"},
        {L"<metric><channel><!-- none --></channel><query>*</query></metric>", L""},
        {L"<metric><settings><channel>System</channel><query>*</query></settings></metric>", nullptr},
        {L"<metric channel='System' query='*'/>", nullptr},
    };
    for (const auto& [xml, channel] : configs) {
        RecordingMetric metric(logger_.Get());
        EXPECT_EQ(metric.Subscribe(MakeConfigElement(xml).Get()), channel ? S_OK : kNotFound) << xml;
        EXPECT_EQ(metric.Channel(), channel ? channel : L"") << xml;
    }
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

TEST_F(MetricTest, OnlyEventsReachParseEventLogAndOnlyUntilUnsubscribed)
{
    RecordingMetric metric;
    ASSERT_EQ(metric.Subscribe(MakeMetricConfig(kTestChannel, L"*[System[Provider[@Name='Metric Test']]]").Get()),
              S_OK);
    WriteEvent(kTestChannel, kPublisher, 1, 0, L"one");
    ::EvtSimDeliverError(kTestChannel, ERROR_EVT_QUERY_RESULT_STALE);  // no event: dropped
    WaitForDeliveries();
    EXPECT_EQ(metric.parsed, 1);
    EXPECT_EQ(metric.Unsubscribe(), S_OK);
    EXPECT_EQ(metric.Unsubscribe(), S_OK);
    WriteEvent(kTestChannel, kPublisher, 2, 0, L"two");
    WaitForDeliveries();
    EXPECT_EQ(metric.parsed, 1);
    EXPECT_EQ(Counters().closed[EVT_SIM_KIND_SUBSCRIPTION], 1);
}

}  // namespace
}  // namespace zeph
