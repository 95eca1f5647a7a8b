// The provider's table of metrics, driven with fake metrics through its factory hook.
#include "com/com_object.h"
#include "com/module_lock.h"
#include "config_element.h"
#include "metric/diagnostics.h"
#include "provider/provider.h"
#include "recording_logger.h"
#include "recording_sink.h"
#include "win/com_strings.h"
#include "win/hresult.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;
using Texts = std::vector<std::wstring>;

// What a fake metric saw; shared with the test so it outlives the metric.
struct FakeMetricRecord {
    std::wstring name;
    IProviderLogger* logger = nullptr;
    int subscribes = 0;
    int unsubscribes = 0;
    int collects = 0;
    IMetricValueSink* lastSink = reinterpret_cast<IMetricValueSink*>(1);
    LONG_PTR lastContext = 0;
    bool destroyed = false;
};

class FakeMetric final : public CMetric {
public:
    FakeMetric(const wchar_t* name, IProviderLogger* logger, IProviderHostContext* context,
               std::shared_ptr<FakeMetricRecord> record, HRESULT subscribeResult, std::function<HRESULT()> collect,
               Texts* unsubscribeOrder)
        : CMetric(name, logger, context), record_(std::move(record)), subscribeResult_(subscribeResult),
          collect_(std::move(collect)), unsubscribeOrder_(unsubscribeOrder)
    {
        record_->name = name;
        record_->logger = logger;
    }
    ~FakeMetric() override { record_->destroyed = true; }

    HRESULT Subscribe(IXMLDOMElement*) override
    {
        ++record_->subscribes;
        return subscribeResult_;
    }
    HRESULT Unsubscribe() override
    {
        ++record_->unsubscribes;
        unsubscribeOrder_->push_back(Name());
        return E_FAIL;  // ignored by the provider
    }
    HRESULT CollectMetric(IMetricValueSink* sink, LONG_PTR context) override
    {
        ++record_->collects;
        record_->lastSink = sink;
        record_->lastContext = context;
        return collect_ ? collect_() : S_OK;
    }

protected:
    void ParseEventLog(EVT_HANDLE) override {}

private:
    std::shared_ptr<FakeMetricRecord> record_;
    HRESULT subscribeResult_;
    std::function<HRESULT()> collect_;
    Texts* unsubscribeOrder_;
};

class ProviderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        locksBefore_ = ModuleLockCount();
        ASSERT_EQ(ComObject<CProvider>::Create(IID_PPV_ARGS(&provider_)), S_OK);
        impl_ = static_cast<CProvider*>(provider_.Get());
        // Fakes for names that start with "fake|".
        UseFakes([](const wchar_t* name) { return std::wcsncmp(name, L"fake|", 5) == 0; });
        ASSERT_TRUE(config_);
    }
    void TearDown() override
    {
        provider_.Reset();
        EXPECT_EQ(ModuleLockCount(), locksBefore_);
        EXPECT_EQ(logger_->References(), 1u);
        EXPECT_EQ(context_->References(), 1u);
    }

    void UseFakes(std::function<bool(const wchar_t*)> known)
    {
        impl_->UseMetricFactory([this, known](const wchar_t* name, ComPtr<IProviderLogger> logger,
                                              ComPtr<IProviderHostContext> context) -> std::shared_ptr<CMetric> {
            ++factoryCalls_;
            if (!known(name)) {
                return nullptr;
            }
            records_.push_back(std::make_shared<FakeMetricRecord>());
            return std::make_shared<FakeMetric>(name, logger.Get(), context.Get(), records_.back(), subscribeResult_,
                                                collect_, &unsubscribeOrder_);
        });
    }
    HRESULT Subscribe(const wchar_t* name) { return provider_->SubscribeMetric(Bstr(name), config_.Get()); }
    HRESULT Unsubscribe(const wchar_t* name) { return provider_->UnsubscribeMetric(Bstr(name)); }
    HRESULT Query(const wchar_t* name, IUnknown* sink, LONG_PTR context = 0)
    {
        return provider_->QueryMetric(Bstr(name), context, sink);
    }
    BSTR Bstr(const wchar_t* text) { return strings_.emplace_back(MakeBstr(text)).get(); }
    void Connect() { ASSERT_EQ(provider_->SetHostInterfaces(logger_.Get(), context_.Get()), S_OK); }

    ComPtr<IZephDataProvider> provider_;
    CProvider* impl_ = nullptr;
    ComPtr<RecordingLogger> logger_ = Adopt(new RecordingLogger(0x7));
    ComPtr<CountingHostContext> context_ = Adopt(new CountingHostContext());
    ComPtr<RecordingSink> sink_ = Adopt(new RecordingSink());
    ComPtr<IXMLDOMElement> config_ = MakeMetricConfig(L"Application", L"*");
    HRESULT subscribeResult_ = S_OK;
    std::function<HRESULT()> collect_;
    int factoryCalls_ = 0;
    std::vector<std::shared_ptr<FakeMetricRecord>> records_;
    Texts unsubscribeOrder_;
    std::vector<unique_bstr> strings_;
    LONG locksBefore_ = 0;
};

TEST_F(ProviderTest, SubscribeQueryUnsubscribeLogsEachStepAndASecondSubscribeIsASilentNoOp)
{
    Connect();
    ASSERT_EQ(Subscribe(L"fake|one"), S_OK);
    EXPECT_EQ(provider_->SubscribeMetric(Bstr(L"fake|one"), MakeMetricConfig(L"System", L"*").Get()), S_OK);
    ASSERT_EQ(records_.size(), 1u);
    EXPECT_EQ(factoryCalls_, 1);
    EXPECT_EQ(records_[0]->name, L"fake|one");
    EXPECT_EQ(records_[0]->logger, logger_.Get());
    EXPECT_EQ(records_[0]->subscribes, 1);
    EXPECT_EQ(Query(L"fake|one", sink_.Get(), 1234), S_OK);
    EXPECT_EQ(records_[0]->collects, 1);
    EXPECT_EQ(Unsubscribe(L"fake|one"), S_OK);
    EXPECT_EQ(logger_->Lines(), (std::vector<LogLine>{{LogLevel::Info, L"created metric 'fake|one'."},
                                                     {LogLevel::Info, L"Subscribed from metric 'fake|one'."},
                                                     {LogLevel::Info, L"Unsubscribed from metric 'fake|one'."}}));
}

TEST_F(ProviderTest, QueryReturnsTheMetricsResultWithTheTypedSinkOrANullOne)
{
    Connect();
    collect_ = [] { return static_cast<HRESULT>(0x80070005); };
    ASSERT_EQ(Subscribe(L"fake|q"), S_OK);
    const auto record = records_[0];
    EXPECT_EQ(Query(L"fake|q", sink_.Get(), 77), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(record->lastSink, static_cast<IMetricValueSink*>(sink_.Get()));
    EXPECT_EQ(record->lastContext, 77);

    // An object without IMetricValueSink reaches the metric as a null sink; so does null.
    EXPECT_EQ(Query(L"fake|q", context_.Get()), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(record->lastSink, nullptr);
    record->lastSink = reinterpret_cast<IMetricValueSink*>(1);
    EXPECT_EQ(Query(L"fake|q", nullptr), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(record->lastSink, nullptr);

    // QueryMetricToSink hands the sink over untested.
    EXPECT_EQ(provider_->QueryMetricToSink(Bstr(L"fake|q"), 5, nullptr), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(record->collects, 4);
    EXPECT_EQ(sink_->References(), 1u);
}

TEST_F(ProviderTest, FailedSubscribeLogsTheErrorTextDropsTheMetricAndReturnsItsResult)
{
    Connect();
    subscribeResult_ = HResultFromWin32(ERROR_NOT_FOUND);
    EXPECT_EQ(Subscribe(L"fake|bad"), static_cast<HRESULT>(0x80070490));
    ASSERT_EQ(records_.size(), 1u);
    EXPECT_TRUE(records_[0]->destroyed);
    subscribeResult_ = static_cast<HRESULT>(0xA1B2C3D4);  // no system text for this one
    EXPECT_EQ(Subscribe(L"fake|bad"), static_cast<HRESULT>(0xA1B2C3D4));

    const ErrorText notFound = AppendErrorText(L"", HResultFromWin32(ERROR_NOT_FOUND));
    ASSERT_TRUE(notFound.systemText);
    const auto lines = logger_->Lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], (LogLine{LogLevel::Info, L"created metric 'fake|bad'."}));
    EXPECT_EQ(lines[1], (LogLine{LogLevel::Error, L"Failed to subscribe metric 'fake|bad'.  Error code 0x80070490 -- " +
                                                      std::wstring(notFound.systemText.get())}));
    EXPECT_EQ(lines[3], (LogLine{LogLevel::Error, L"Failed to subscribe metric 'fake|bad'.  Error code 0xa1b2c3d4."}));

    logger_->Clear();
    EXPECT_EQ(Query(L"fake|bad", nullptr), S_OK);
    EXPECT_EQ(logger_->Texts(), Texts{L"Metric 'fake|bad' should be queried from internal metric."});
}

TEST_F(ProviderTest, TableKeysAreExactWhileFactoryNamesIgnoreCase)
{
    Connect();
    UseFakes([](const wchar_t* name) { return IsMetricName(name, L"fake|metric"); });
    EXPECT_EQ(Subscribe(L"fake|metricx"), S_OK);
    EXPECT_EQ(Subscribe(L"fake|metri"), S_OK);
    EXPECT_TRUE(logger_->Lines().empty()) << "an unknown name creates and logs nothing";

    ASSERT_EQ(Subscribe(L"FAKE|METRIC"), S_OK);
    ASSERT_EQ(records_.size(), 1u);
    EXPECT_EQ(records_[0]->name, L"FAKE|METRIC");
    logger_->Clear();
    EXPECT_EQ(Query(L"fake|metric", sink_.Get()), S_OK);
    EXPECT_EQ(Unsubscribe(L"fake|metric"), S_OK);
    EXPECT_EQ(records_[0]->collects + records_[0]->unsubscribes, 0);
    EXPECT_EQ(logger_->Texts(), Texts{L"Metric 'fake|metric' should be queried from internal metric."});

    EXPECT_EQ(Query(L"FAKE|METRIC", sink_.Get()), S_OK);
    EXPECT_EQ(records_[0]->collects, 1);
    EXPECT_EQ(Unsubscribe(L"FAKE|METRIC"), S_OK);
    EXPECT_EQ(records_[0]->unsubscribes, 1);
    EXPECT_TRUE(records_[0]->destroyed);
}

TEST_F(ProviderTest, RealFactoryCreatesNothingForUnknownNames)
{
    impl_->UseMetricFactory(MetricFactory);
    Connect();
    for (const wchar_t* name : {L"eventlog|other", L"eventlog|eventlog_appcrashx", L"", L"eventlog|"}) {
        EXPECT_EQ(Subscribe(name), S_OK) << name;
    }
    EXPECT_TRUE(logger_->Lines().empty());
    EXPECT_TRUE(IsMetricName(L"EVENTLOG|EventLog_AppCrash", kAppCrashMetricName));
    EXPECT_TRUE(IsMetricName(L"eventlog|EVENTLOG_QUILLON", kQuillonMetricName));
    EXPECT_FALSE(IsMetricName(L"eventlog|eventlog_quillo", kQuillonMetricName));
}

TEST_F(ProviderTest, NullArgumentsAndNonElementConfigurationsAreInvalidAndLogNothing)
{
    Connect();
    EXPECT_EQ(provider_->SubscribeMetric(nullptr, config_.Get()), E_INVALIDARG);
    EXPECT_EQ(provider_->SubscribeMetric(Bstr(L"fake|x"), nullptr), E_INVALIDARG);
    EXPECT_EQ(provider_->SubscribeMetric(Bstr(L"fake|x"), context_.Get()), E_INVALIDARG);
    EXPECT_EQ(provider_->UnsubscribeMetric(nullptr), E_INVALIDARG);
    EXPECT_EQ(provider_->QueryMetric(nullptr, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(provider_->QueryMetricToSink(nullptr, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(Unsubscribe(L"fake|never"), S_OK);
    EXPECT_EQ(factoryCalls_, 0);
    EXPECT_TRUE(logger_->Lines().empty());
}

TEST_F(ProviderTest, UnsubscribeAllWalksTheTableInOrdinalOrderAndLogsEvenWhenEmpty)
{
    Connect();
    EXPECT_EQ(provider_->UnsubscribeAllMetrics(), S_OK);
    EXPECT_EQ(logger_->Texts(), Texts{L"Unsubscribed all metrics."});
    for (const wchar_t* name : {L"fake|b", L"fake|a", L"fake|B", L"fake|ab"}) {
        ASSERT_EQ(Subscribe(name), S_OK);
    }
    EXPECT_EQ(provider_->UnsubscribeAllMetrics(), S_OK);
    EXPECT_EQ(unsubscribeOrder_, (Texts{L"fake|B", L"fake|a", L"fake|ab", L"fake|b"}));
    for (const auto& record : records_) {
        EXPECT_TRUE(record->destroyed);
    }
    EXPECT_EQ(logger_->Texts().back(), L"Unsubscribed all metrics.");
}

TEST_F(ProviderTest, ReleaseDestroysMetricsWithoutUnsubscribingThenReleasesHostObjects)
{
    Connect();
    ASSERT_EQ(Subscribe(L"fake|kept"), S_OK);
    const ULONG configReferences = (config_->AddRef(), config_->Release());
    EXPECT_GT(logger_->References(), 1u);
    provider_.Reset();
    EXPECT_TRUE(records_[0]->destroyed);
    EXPECT_EQ(records_[0]->unsubscribes, 0);
    EXPECT_EQ(logger_->References(), 1u);
    EXPECT_EQ(context_->References(), 1u);
    EXPECT_EQ(config_->AddRef() - 1, configReferences);
    config_->Release();
}

TEST_F(ProviderTest, SetHostInterfacesKeepsOneReferenceAndMetricsKeepTheirOwn)
{
    EXPECT_EQ(provider_->SetHostInterfaces(nullptr, context_.Get()), E_INVALIDARG);
    EXPECT_EQ(provider_->SetHostInterfaces(logger_.Get(), nullptr), E_INVALIDARG);
    EXPECT_EQ(logger_->References() + context_->References(), 2u);

    // Without host interfaces metrics get null ones.
    ASSERT_EQ(Subscribe(L"fake|early"), S_OK);
    EXPECT_EQ(records_[0]->logger, nullptr);

    Connect();
    Connect();  // the same pointers again change nothing
    EXPECT_EQ(logger_->References(), 2u);
    EXPECT_EQ(context_->References(), 2u);
    ASSERT_EQ(Subscribe(L"fake|late"), S_OK);
    EXPECT_EQ(logger_->References(), 3u);  // the metric holds one too

    const ComPtr<RecordingLogger> logger2 = Adopt(new RecordingLogger(0x7));
    const ComPtr<CountingHostContext> context2 = Adopt(new CountingHostContext());
    ASSERT_EQ(provider_->SetHostInterfaces(logger2.Get(), context2.Get()), S_OK);
    EXPECT_EQ(logger_->References(), 2u);  // only the metric's is left
    EXPECT_EQ(context_->References(), 2u);
    EXPECT_EQ(logger2->References(), 2u);
    EXPECT_EQ(records_[1]->logger, logger_.Get());  // existing metrics keep theirs
    provider_.Reset();
    EXPECT_EQ(logger2->References(), 1u);
    EXPECT_EQ(context2->References(), 1u);
}

TEST_F(ProviderTest, EveryInterfaceIsTheSameObjectHoldingAModuleLockAndReservedMethodsAnswerSOk)
{
    EXPECT_EQ(ModuleLockCount(), locksBefore_ + 1);
    for (const IID& iid : {__uuidof(IZephDataProvider), __uuidof(IDataProviderEx), __uuidof(IDataProvider),
                           IID_IDispatch, IID_IUnknown}) {
        ComPtr<IUnknown> asked;
        ASSERT_EQ(provider_->QueryInterface(iid, reinterpret_cast<void**>(asked.GetAddressOf())), S_OK);
        EXPECT_EQ(asked.Get(), static_cast<IUnknown*>(provider_.Get()));
    }
    ComPtr<IClassFactory> other;
    EXPECT_EQ(provider_.As(&other), E_NOINTERFACE);
    EXPECT_EQ(other.Get(), nullptr);
    UINT count = 0;
    EXPECT_EQ(provider_->GetTypeInfoCount(&count), S_OK);
    EXPECT_EQ(count, 1u);
    for (auto reserved : {&IDataProvider::Reserved1, &IDataProvider::Reserved2, &IDataProvider::Reserved3,
                          &IDataProvider::Reserved4, &IDataProvider::Reserved5, &IDataProvider::Reserved6}) {
        EXPECT_EQ((provider_.Get()->*reserved)(), S_OK);
    }
}

// Exception-to-HRESULT mapping itself is tested in tests/metric; here, that every path goes through it.
TEST_F(ProviderTest, ExceptionsFromMetricsAndTheFactoryBecomeHResults)
{
    Connect();
    collect_ = []() -> HRESULT { throw std::bad_alloc(); };
    ASSERT_EQ(Subscribe(L"fake|oom"), S_OK);
    EXPECT_EQ(Query(L"fake|oom", nullptr), E_OUTOFMEMORY);
    EXPECT_EQ(provider_->QueryMetricToSink(Bstr(L"fake|oom"), 0, nullptr), E_OUTOFMEMORY);

    impl_->UseMetricFactory([](const wchar_t*, ComPtr<IProviderLogger>, ComPtr<IProviderHostContext>)
                                -> std::shared_ptr<CMetric> { throw HResultError(E_ACCESSDENIED); });
    EXPECT_EQ(Subscribe(L"fake|denied"), E_ACCESSDENIED);
}

}  // namespace
}  // namespace zeph
