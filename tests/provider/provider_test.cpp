// The provider's table of metrics, with the real metrics on the simulated event log; the
// factory hook only gives a metric that throws, the one path no real metric reaches.
#include "appcrash/app_crash_metric.h"
#include "com/com_object.h"
#include "com/module_lock.h"
#include "config_element.h"
#include "metric/diagnostics.h"
#include "observed.h"
#include "provider/metric_factory.h"
#include "provider/provider.h"
#include "support/host_logger.h"
#include "support/host_value_sink.h"
#include "simulated_event_log.h"
#include "win/com_strings.h"
#include "win/hresult.h"

#include <gtest/gtest.h>

#include <memory>
#include <new>
#include <string>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;
using Texts = std::vector<std::wstring>;

class ThrowingMetric final : public CMetric {
public:
    ThrowingMetric() : CMetric(L"test|throwing", nullptr, nullptr) {}
    HRESULT Subscribe(IXMLDOMElement*) override { return S_OK; }
    HRESULT CollectMetric(IMetricValueSink*, LONG_PTR) override { throw std::bad_alloc(); }

protected:
    void ParseEventLog(EVT_HANDLE) override {}
};

class ProviderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        locksBefore_ = ModuleLockCount();
        ASSERT_EQ(ComObject<CProvider>::Create(IID_PPV_ARGS(&provider_)), S_OK);
        ASSERT_TRUE(config_);
    }
    void TearDown() override
    {
        provider_.Reset();
        WaitForDeliveries();
        EXPECT_EQ(ModuleLockCount(), locksBefore_);
        EXPECT_EQ(logger_->References(), 1u);
        EXPECT_EQ(context_->References(), 1u);
        EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION), 0);
    }

    HRESULT Subscribe(const wchar_t* name, IXMLDOMElement* config = nullptr)
    {
        return provider_->SubscribeMetric(Bstr(name), config != nullptr ? config : config_.Get());
    }
    HRESULT Unsubscribe(const wchar_t* name) { return provider_->UnsubscribeMetric(Bstr(name)); }
    HRESULT Query(const wchar_t* name, IUnknown* sink, LONG_PTR context = 0)
    {
        return provider_->QueryMetric(Bstr(name), context, sink);
    }
    BSTR Bstr(const wchar_t* text) { return strings_.emplace_back(MakeBstr(text)).get(); }
    void Connect() { ASSERT_EQ(provider_->SetHostInterfaces(logger_.Get(), context_.Get()), S_OK); }
    static void Crash()
    {
        WriteEvent(L"Application", kCrashPublisher, 1000, 0, L"provider test crash");
        WaitForDeliveries();
    }
    static LONG64 OpenSubscriptions() { return ::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION); }

    ComPtr<IZephDataProvider> provider_;
    ComPtr<HostLogger> logger_ = Adopt(new HostLogger(0x7));
    ComPtr<HostContext> context_ = Adopt(new HostContext());
    ComPtr<HostValueSink> sink_ = Adopt(new HostValueSink());
    ComPtr<IXMLDOMElement> config_ =
        MakeMetricConfig(L"Application", L"*[System[Provider[@Name='Application Error']]]");
    std::vector<unique_bstr> strings_;
    LONG locksBefore_ = 0;
};

TEST_F(ProviderTest, SubscribeQueryUnsubscribeLogEachStepWithExactKeysAndCaseInsensitiveNames)
{
    Connect();
    for (const wchar_t* name :
         {L"eventlog|other", L"eventlog|eventlog_appcrashx", L"eventlog|eventlog_quillox", L"", L"eventlog|"}) {
        EXPECT_EQ(Subscribe(name), S_OK) << name;
    }
    EXPECT_TRUE(logger_->Lines().empty()) << "an unknown name creates and logs nothing";

    ASSERT_EQ(Subscribe(L"EVENTLOG|EventLog_AppCrash"), S_OK);
    EXPECT_EQ(Subscribe(L"EVENTLOG|EventLog_AppCrash", MakeMetricConfig(L"System", L"*").Get()), S_OK);
    EXPECT_EQ(OpenSubscriptions(), 1) << "the first configuration stays";
    Crash();
    // The table's keys are exact.
    EXPECT_EQ(Query(kAppCrashMetricName, sink_.Get()), S_OK);
    EXPECT_EQ(Unsubscribe(kAppCrashMetricName), S_OK);
    EXPECT_TRUE(sink_->Writes().empty());
    EXPECT_EQ(OpenSubscriptions(), 1);

    EXPECT_EQ(Query(L"EVENTLOG|EventLog_AppCrash", sink_.Get()), S_OK);
    EXPECT_EQ(sink_->Writes().size(), 2u);
    EXPECT_EQ(Unsubscribe(L"EVENTLOG|EventLog_AppCrash"), S_OK);
    EXPECT_EQ(OpenSubscriptions(), 0);
    EXPECT_EQ(logger_->Texts(), (Texts{L"created metric 'EVENTLOG|EventLog_AppCrash'.",
                                       L"Subscribed from metric 'EVENTLOG|EventLog_AppCrash'.",
                                       L"Metric 'eventlog|eventlog_appcrash' should be queried from internal metric.",
                                       L"Unsubscribed from metric 'EVENTLOG|EventLog_AppCrash'."}));
}

TEST_F(ProviderTest, QueryHandsTheMetricItsTypedSinkOrANullOneAndReturnsItsResult)
{
    Connect();
    ASSERT_EQ(Subscribe(kAppCrashMetricName), S_OK);
    Crash();
    // An object without IMetricValueSink reaches the metric as a null sink; so does null.
    EXPECT_EQ(Query(kAppCrashMetricName, context_.Get()), E_POINTER);
    EXPECT_EQ(Query(kAppCrashMetricName, nullptr), E_POINTER);
    EXPECT_EQ(provider_->QueryMetricToSink(Bstr(kAppCrashMetricName), 0, nullptr), E_POINTER);
    sink_->Refuse(kCrashFlagKey, E_ACCESSDENIED);
    EXPECT_EQ(Query(kAppCrashMetricName, sink_.Get(), 77), E_ACCESSDENIED);
    sink_->SetPolicy(nullptr);
    EXPECT_EQ(Query(kAppCrashMetricName, sink_.Get(), 77), S_OK);
    EXPECT_EQ(sink_->Accepted().size(), 2u);
    EXPECT_EQ(sink_->References(), 1u);
}

TEST_F(ProviderTest, FailedSubscribeLogsTheErrorTextDropsTheMetricAndReturnsItsResult)
{
    Connect();
    EXPECT_EQ(Subscribe(kQuillonMetricName, MakeConfigElement(L"<metric><query>*</query></metric>").Get()),
              static_cast<HRESULT>(0x80070490));
    const ErrorText notFound = AppendErrorText(L"", HResultFromWin32(ERROR_NOT_FOUND));
    ASSERT_TRUE(notFound.systemText);
    EXPECT_EQ(logger_->Lines(),
              (std::vector<LogLine>{{LogLevel::Info, L"created metric 'eventlog|eventlog_quillon'."},
                                    {LogLevel::Error, L"Property 'channel' was not found in the configuration."},
                                    {LogLevel::Error,
                                     L"Failed to subscribe metric 'eventlog|eventlog_quillon'.  "
                                     L"Error code 0x80070490 -- " +
                                         std::wstring(notFound.systemText.get())}}));
    logger_->Clear();
    EXPECT_EQ(Query(kQuillonMetricName, nullptr), S_OK);
    EXPECT_EQ(logger_->Texts(), Texts{L"Metric 'eventlog|eventlog_quillon' should be queried from internal metric."});

    // Null arguments and configurations that are no element are invalid, and log and create nothing.
    logger_->Clear();
    EXPECT_EQ(provider_->SubscribeMetric(nullptr, config_.Get()), E_INVALIDARG);
    EXPECT_EQ(provider_->SubscribeMetric(Bstr(kAppCrashMetricName), nullptr), E_INVALIDARG);
    EXPECT_EQ(provider_->SubscribeMetric(Bstr(kAppCrashMetricName), context_.Get()), E_INVALIDARG);
    EXPECT_EQ(provider_->UnsubscribeMetric(nullptr), E_INVALIDARG);
    EXPECT_EQ(provider_->QueryMetric(nullptr, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(provider_->QueryMetricToSink(nullptr, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(Unsubscribe(L"eventlog|never"), S_OK);
    EXPECT_TRUE(logger_->Lines().empty());
    EXPECT_EQ(OpenSubscriptions(), 0);
}

TEST_F(ProviderTest, UnsubscribeAllEmptiesTheTable)
{
    Connect();
    EXPECT_EQ(provider_->UnsubscribeAllMetrics(), S_OK);
    ASSERT_EQ(Subscribe(kAppCrashMetricName), S_OK);
    ASSERT_EQ(Subscribe(kQuillonMetricName), S_OK);
    EXPECT_EQ(OpenSubscriptions(), 2);
    EXPECT_EQ(provider_->UnsubscribeAllMetrics(), S_OK);
    EXPECT_EQ(OpenSubscriptions(), 0);
    EXPECT_EQ(logger_->Texts().front(), L"Unsubscribed all metrics.");
    EXPECT_EQ(logger_->Texts().back(), L"Unsubscribed all metrics.");
    logger_->Clear();
    EXPECT_EQ(Query(kAppCrashMetricName, sink_.Get()), S_OK);
    EXPECT_EQ(logger_->Texts(), Texts{L"Metric 'eventlog|eventlog_appcrash' should be queried from internal metric."});
}

TEST_F(ProviderTest, SetHostInterfacesKeepsOneReferenceAndMetricsKeepTheirOwn)
{
    EXPECT_EQ(provider_->SetHostInterfaces(nullptr, context_.Get()), E_INVALIDARG);
    EXPECT_EQ(provider_->SetHostInterfaces(logger_.Get(), nullptr), E_INVALIDARG);
    EXPECT_EQ(logger_->References() + context_->References(), 2u);

    Connect();
    Connect();  // the same pointers again change nothing
    EXPECT_EQ(logger_->References(), 2u);
    EXPECT_EQ(context_->References(), 2u);
    ASSERT_EQ(Subscribe(kAppCrashMetricName), S_OK);
    EXPECT_EQ(logger_->References(), 3u);  // the metric holds one too
    EXPECT_EQ(context_->References(), 3u);

    // Each new reference is taken before the old one goes, the logger's before the context's.
    Texts journal;
    const auto journalAs = [&journal](const wchar_t* name) {
        return [&journal, name](const wchar_t* call) { journal.push_back(std::wstring(name) + L" " + call); };
    };
    const auto logger2 = Adopt(new Observed<HostLogger>(journalAs(L"new logger"), 0x7));
    const auto context2 = Adopt(new Observed<HostContext>(journalAs(L"new context")));
    const auto oldLogger = Adopt(new Observed<HostLogger>(journalAs(L"old logger"), 0x7));
    const auto oldContext = Adopt(new Observed<HostContext>(journalAs(L"old context")));
    ASSERT_EQ(provider_->SetHostInterfaces(oldLogger.Get(), oldContext.Get()), S_OK);
    journal.clear();
    ASSERT_EQ(provider_->SetHostInterfaces(logger2.Get(), context2.Get()), S_OK);
    EXPECT_EQ(journal,
              (Texts{L"new logger AddRef", L"old logger Release", L"new context AddRef", L"old context Release"}));
    EXPECT_EQ(logger_->References(), 2u);  // only the metric's is left
    EXPECT_EQ(context_->References(), 2u);
    EXPECT_EQ(logger2->References(), 2u);
    logger_->Clear();
    EXPECT_EQ(Query(kAppCrashMetricName, sink_.Get()), S_OK);
    EXPECT_EQ(logger_->Texts(), Texts{L"No application crash available"}) << "existing metrics keep theirs";
    EXPECT_TRUE(logger2->Lines().empty());
    journal.clear();
    provider_.Reset();
    EXPECT_EQ(journal, (Texts{L"new context Release", L"new logger Release"}));
    EXPECT_EQ(logger2->References(), 1u);
    EXPECT_EQ(context2->References(), 1u);
}

TEST_F(ProviderTest, ExceptionsFromMetricsAndTheFactoryBecomeHResults)
{
    static_cast<CProvider*>(provider_.Get())
        ->UseMetricFactory([](const wchar_t*, ComPtr<IProviderLogger>, ComPtr<IProviderHostContext>) {
            return std::make_shared<ThrowingMetric>();
        });
    ASSERT_EQ(Subscribe(L"test|oom"), S_OK);
    EXPECT_EQ(Query(L"test|oom", nullptr), E_OUTOFMEMORY);
    EXPECT_EQ(provider_->QueryMetricToSink(Bstr(L"test|oom"), 0, nullptr), E_OUTOFMEMORY);

    static_cast<CProvider*>(provider_.Get())
        ->UseMetricFactory(
            [](const wchar_t*, ComPtr<IProviderLogger>, ComPtr<IProviderHostContext>) -> std::shared_ptr<CMetric> {
                throw HResultError(E_ACCESSDENIED);
            });
    EXPECT_EQ(Subscribe(L"test|denied"), E_ACCESSDENIED);
}

}  // namespace
}  // namespace zeph
