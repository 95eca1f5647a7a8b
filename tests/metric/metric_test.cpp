#include "config_element.h"
#include "event_log_handle.h"
#include "event_log_reader.h"
#include "metric.h"
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

using test::Counters;
using test::MakeConfigElement;
using test::MakeMetricConfig;
using test::RecordingLogger;
using test::WaitForDeliveries;
using test::WriteEvent;

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
        RenderEventValues(*context.put(), event, kPaths, 1,
                          [&](PEVT_VARIANT& values) { delivery.eventId = values[0].UInt16Val; });
        unique_evt_handle publisher(::EvtOpenPublisherMetadata(nullptr, kPublisher, nullptr, 0, 0));
        FormatEventMessage(publisher.get(), event, [&](const wchar_t* message) { delivery.message = message; });
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
        logger_->Release();
    }

    RecordingLogger* logger_ = new RecordingLogger(0x7);
};

TEST_F(MetricTest, MissingChannelIsReportedAndTheQueryIsNotRead)
{
    RecordingMetric metric(logger_);
    auto config = MakeConfigElement(L"<metric><query>*</query></metric>");
    EXPECT_EQ(metric.Subscribe(config.Get()), kNotFound);
    EXPECT_EQ(logger_->Lines(), (std::vector<test::LogLine>{
                                    {LogLevel::Error, L"Property 'channel' was not found in the configuration."}}));
    EXPECT_EQ(metric.SubscriptionHandle(), nullptr);
    EXPECT_TRUE(metric.Query().empty());
}

TEST_F(MetricTest, MissingQueryKeepsTheNewChannelAndOpensNothing)
{
    RecordingMetric metric(logger_);
    auto config = MakeConfigElement(L"<metric><channel>System</channel></metric>");
    EXPECT_EQ(metric.Subscribe(config.Get()), kNotFound);
    EXPECT_EQ(logger_->Texts(), std::vector<std::wstring>{L"Property 'query' was not found in the configuration."});
    EXPECT_EQ(metric.Channel(), L"System");
    EXPECT_EQ(metric.SubscriptionHandle(), nullptr);
    EXPECT_EQ(Counters().opened[EVT_SIM_KIND_SUBSCRIPTION], 0);
}

TEST_F(MetricTest, AttributesAndDeeperElementsAreNotProperties)
{
    RecordingMetric metric(logger_);
    auto attributes = MakeConfigElement(L"<metric channel='Application' query='*'/>");
    EXPECT_EQ(metric.Subscribe(attributes.Get()), kNotFound);
    auto nested = MakeConfigElement(L"<metric><settings><channel>Application</channel><query>*</query></settings></metric>");
    EXPECT_EQ(metric.Subscribe(nested.Get()), kNotFound);
    EXPECT_EQ(logger_->Texts().size(), 2u);
}

TEST_F(MetricTest, WithoutALoggerMissingPropertiesFailSilently)
{
    RecordingMetric metric(nullptr);
    auto config = MakeConfigElement(L"<metric/>");
    EXPECT_EQ(metric.Subscribe(config.Get()), kNotFound);
}

TEST_F(MetricTest, ChannelsAndQueriesTheEventLogRejectsStillSubscribe)
{
    for (const auto& [channel, query] : std::vector<std::pair<std::wstring, std::wstring>>{
             {L"", L"*"}, {L"No Such Channel", L"*"}, {L"Application", L"*[System[Nonsense"}}) {
        RecordingMetric metric(logger_);
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
    RecordingMetric metric(logger_);
    ASSERT_EQ(metric.Subscribe(MakeMetricConfig(kTestChannel, L"*[System[Provider[@Name='Metric Test']]]").Get()), S_OK);
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

TEST_F(MetricTest, DestroyingTheMetricEndsItsSubscription)
{
    {
        RecordingMetric metric;
        ASSERT_EQ(metric.Subscribe(MakeMetricConfig(kTestChannel, L"*").Get()), S_OK);
        WriteEvent(kTestChannel, kPublisher, 7, 0, L"one");
    }
    WaitForDeliveries();
    EXPECT_EQ(Counters().closed[EVT_SIM_KIND_SUBSCRIPTION], 1);
    EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION), 0);
}

// The reader functions, called from inside a real delivery.
class ReaderTest : public MetricTest {
protected:
    template <typename Check>
    void OnNextEvent(const std::wstring& message, DWORD flags, Check check)
    {
        EventLogSubscription subscription;
        std::atomic<int> calls{0};
        ASSERT_EQ(subscription.Subscribe(kTestChannel, L"*", [&](EVT_HANDLE event, int action) {
            ASSERT_EQ(action, EvtSubscribeActionDeliver);
            check(event);
            ++calls;
        }), S_OK);
        WriteEvent(kTestChannel, kPublisher, 4242, 0x01D7135C2A3B4C5DULL, message, flags);
        WaitForDeliveries();
        EXPECT_EQ(calls, 1);
    }
};

TEST_F(ReaderTest, RenderGrowsItsBufferOnceAndReusesAGivenContext)
{
    static constexpr const wchar_t* kPaths[] = {L"Event/System/EventID", L"Event/System/TimeCreated/@SystemTime",
                                                L"Event/System/Unknown"};
    OnNextEvent(L"m", 0, [](EVT_HANDLE event) {
        EVT_HANDLE context = nullptr;
        int calls = 0;
        EXPECT_EQ(RenderEventValues(context, event, kPaths, 3, [&](PEVT_VARIANT& values) {
            ++calls;
            ASSERT_NE(values, nullptr);
            EXPECT_EQ(values[0].Type, static_cast<DWORD>(EvtVarTypeUInt16));
            EXPECT_EQ(values[0].UInt16Val, 4242);
            EXPECT_EQ(values[1].Type, static_cast<DWORD>(EvtVarTypeFileTime));
            EXPECT_EQ(values[1].FileTimeVal, 0x01D7135C2A3B4C5DULL);
            EXPECT_EQ(values[2].Type, static_cast<DWORD>(EvtVarTypeNull));
        }), static_cast<DWORD>(ERROR_SUCCESS));
        ASSERT_NE(context, nullptr);
        const EVT_HANDLE first = context;
        EXPECT_EQ(RenderEventValues(context, event, kPaths, 3, [&](PEVT_VARIANT&) { ++calls; }),
                  static_cast<DWORD>(ERROR_SUCCESS));
        EXPECT_EQ(context, first);
        EXPECT_EQ(calls, 2);
        ::EvtClose(context);
    });
    EXPECT_EQ(Counters().opened[EVT_SIM_KIND_RENDER_CONTEXT], 1);
}

TEST_F(ReaderTest, FormatReturnsLongAndEmptyMessagesWhole)
{
    const std::wstring longMessage(70000, L'x');
    for (const std::wstring& message : {longMessage, std::wstring(), std::wstring(L"line 1\r\nline 2")}) {
        OnNextEvent(message, 0, [&](EVT_HANDLE event) {
            unique_evt_handle publisher(::EvtOpenPublisherMetadata(nullptr, kPublisher, nullptr, 0, 0));
            std::wstring formatted = L"untouched";
            EXPECT_EQ(FormatEventMessage(publisher.get(), event, [&](const wchar_t* text) { formatted = text; }),
                      static_cast<DWORD>(ERROR_SUCCESS));
            EXPECT_EQ(formatted, message);
        });
    }
}

TEST_F(ReaderTest, AnUnformattableEventGivesNoCallbackAndTheSystemCode)
{
    OnNextEvent(L"secret", EVT_SIM_UNFORMATTABLE, [](EVT_HANDLE event) {
        unique_evt_handle publisher(::EvtOpenPublisherMetadata(nullptr, kPublisher, nullptr, 0, 0));
        bool called = false;
        EXPECT_EQ(FormatEventMessage(publisher.get(), event, [&](const wchar_t*) { called = true; }),
                  static_cast<DWORD>(ERROR_EVT_MESSAGE_NOT_FOUND));
        EXPECT_FALSE(called);
    });
    OnNextEvent(L"other publisher", 0, [](EVT_HANDLE) {
        unique_evt_handle missing(::EvtOpenPublisherMetadata(nullptr, L"Never Written", nullptr, 0, 0));
        EXPECT_FALSE(missing);
        EXPECT_EQ(::GetLastError(), static_cast<DWORD>(ERROR_EVT_PUBLISHER_METADATA_NOT_FOUND));
    });
}

// A metric whose ParseEventLog uses a member that notices its own destruction.
// Were deliveries stopped after the members went, a delivery would see it.
std::atomic<int> g_deliveriesIntoDestroyedMembers{0};
std::atomic<int> g_teardownDeliveries{0};

class TeardownMetric final : public CMetric {
public:
    TeardownMetric() : CMetric(L"test|teardown", nullptr, nullptr) {}
    ~TeardownMetric() override { StopDeliveries(); }
    HRESULT CollectMetric(IMetricValueSink*, LONG_PTR) override { return S_OK; }

protected:
    void ParseEventLog(EVT_HANDLE) override
    {
        if (state_.gone.load()) {
            ++g_deliveriesIntoDestroyedMembers;
        }
        ++g_teardownDeliveries;
        std::this_thread::yield();
        if (state_.gone.load()) {
            ++g_deliveriesIntoDestroyedMembers;
        }
    }

private:
    struct State {
        std::atomic<bool> gone{false};
        ~State()
        {
            gone = true;
            // Give a delivery that should not be running time to run into it.
            ::Sleep(1);
        }
    };
    State state_;
};

TEST_F(MetricTest, AMetricDestroyedMidDeliveryNeverSeesADeliveryAfterItsSubscriptionCloses)
{
    std::atomic<bool> writing{true};
    std::thread writer([&] {
        while (writing) {
            EVT_SIM_EVENT event = {kTestChannel, kPublisher, 1, 0, L"busy", 0};
            ::EvtSimWriteEvent(&event);
        }
    });
    constexpr int kRounds = 300;
    for (int round = 0; round < kRounds; ++round) {
        auto metric = std::make_unique<TeardownMetric>();
        ASSERT_EQ(metric->Subscribe(MakeMetricConfig(kTestChannel, L"*").Get()), S_OK);
        const ULONGLONG deadline = ::GetTickCount64() + 10000;
        while (g_teardownDeliveries == 0 && ::GetTickCount64() < deadline) {
            std::this_thread::yield();
        }
        ASSERT_GT(g_teardownDeliveries, 0) << "no delivery within ten seconds";
        metric.reset();
        g_teardownDeliveries = 0;
    }
    writing = false;
    writer.join();
    WaitForDeliveries();
    EXPECT_EQ(g_deliveriesIntoDestroyedMembers, 0);
    EXPECT_EQ(Counters().closed[EVT_SIM_KIND_SUBSCRIPTION], kRounds);
}

}  // namespace
}  // namespace zeph
