#include "config_element.h"
#include "metric/event_log_handle.h"
#include "metric/event_log_reader.h"
#include "metric/metric.h"
#include "recording_logger.h"
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

    Microsoft::WRL::ComPtr<RecordingLogger> logger_ = Adopt(new RecordingLogger(0x7));
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
    EXPECT_EQ(logger_->Lines(), (std::vector<LogLine>{
                                    {LogLevel::Error, L"Property 'channel' was not found in the configuration."},
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

}  // namespace
}  // namespace zeph
