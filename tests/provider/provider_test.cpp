#include "com_object.h"
#include "com_strings.h"
#include "config_element.h"
#include "diagnostics.h"
#include "hresult.h"
#include "module_lock.h"
#include "provider.h"
#include "recording_logger.h"
#include "recording_sink.h"

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
using test::CountingHostContext;
using test::LogLine;
using test::RecordingLogger;
using test::RecordingSink;

// What a fake metric saw, shared with the test so it survives the metric.
struct FakeMetricRecord {
    std::wstring name;
    IProviderLogger* logger = nullptr;
    int subscribes = 0;
    int unsubscribes = 0;
    int collects = 0;
    IMetricValueSink* lastSink = reinterpret_cast<IMetricValueSink*>(1);
    LONG_PTR lastContext = 0;
    bool destroyed = false;
    std::vector<std::wstring>* unsubscribeOrder = nullptr;
};

class FakeMetric final : public CMetric {
public:
    FakeMetric(const wchar_t* name, IProviderLogger* logger, IProviderHostContext* context,
               std::shared_ptr<FakeMetricRecord> record, HRESULT subscribeResult, std::function<HRESULT()> collect)
        : CMetric(name, logger, context), record_(std::move(record)), subscribeResult_(subscribeResult),
          collect_(std::move(collect))
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
        if (record_->unsubscribeOrder != nullptr) {
            record_->unsubscribeOrder->push_back(Name());
        }
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
};

class ProviderTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        locksBefore_ = ModuleLockCount();
        ASSERT_EQ(ComObject<CProvider>::Create(IID_PPV_ARGS(&provider_)), S_OK);
        impl_ = static_cast<CProvider*>(provider_.Get());
        impl_->UseMetricFactory([this](const wchar_t* name, ComPtr<IProviderLogger> logger,
                                       ComPtr<IProviderHostContext> context) -> std::shared_ptr<CMetric> {
            ++factoryCalls_;
            if (std::wcsncmp(name, L"fake|", 5) != 0) {
                return nullptr;
            }
            auto record = std::make_shared<FakeMetricRecord>();
            record->unsubscribeOrder = &unsubscribeOrder_;
            records_.push_back(record);
            return std::make_shared<FakeMetric>(name, logger.Get(), context.Get(), record, subscribeResult_,
                                                collect_);
        });
        config_ = test::MakeMetricConfig(L"Application", L"*");
        ASSERT_TRUE(config_);
    }

    void TearDown() override
    {
        provider_.Reset();
        EXPECT_EQ(ModuleLockCount(), locksBefore_);
        EXPECT_EQ(logger_->References(), 1u);
        EXPECT_EQ(context_->References(), 1u);
        logger_->Release();
        context_->Release();
    }

    HRESULT Subscribe(const wchar_t* name) { return provider_->SubscribeMetric(Bstr(name), config_.Get()); }
    HRESULT Unsubscribe(const wchar_t* name) { return provider_->UnsubscribeMetric(Bstr(name)); }
    HRESULT Query(const wchar_t* name, IUnknown* sink, LONG_PTR context = 0)
    {
        return provider_->QueryMetric(Bstr(name), context, sink);
    }
    BSTR Bstr(const wchar_t* text)
    {
        strings_.push_back(MakeBstr(text));
        return strings_.back().get();
    }
    void Connect() { ASSERT_EQ(provider_->SetHostInterfaces(logger_, context_), S_OK); }

    ComPtr<IZephDataProvider> provider_;
    CProvider* impl_ = nullptr;
    RecordingLogger* logger_ = new RecordingLogger(0x7);
    CountingHostContext* context_ = new CountingHostContext();
    ComPtr<IXMLDOMElement> config_;
    HRESULT subscribeResult_ = S_OK;
    std::function<HRESULT()> collect_;
    int factoryCalls_ = 0;
    std::vector<std::shared_ptr<FakeMetricRecord>> records_;
    std::vector<std::wstring> unsubscribeOrder_;
    std::vector<unique_bstr> strings_;
    LONG locksBefore_ = 0;
};

TEST_F(ProviderTest, SubscribeQueryUnsubscribeLogsEachStepAndPassesSinkAndContextThrough)
{
    Connect();
    ASSERT_EQ(Subscribe(L"fake|one"), S_OK);
    ASSERT_EQ(records_.size(), 1u);
    EXPECT_EQ(records_[0]->name, L"fake|one");
    EXPECT_EQ(records_[0]->logger, logger_);
    EXPECT_EQ(records_[0]->subscribes, 1);

    auto* sink = new RecordingSink();
    EXPECT_EQ(Query(L"fake|one", sink, 1234), S_OK);
    EXPECT_EQ(records_[0]->collects, 1);

    EXPECT_EQ(Unsubscribe(L"fake|one"), S_OK);
    EXPECT_EQ(logger_->Lines(), (std::vector<LogLine>{{LogLevel::Info, L"created metric 'fake|one'."},
                                                     {LogLevel::Info, L"Subscribed from metric 'fake|one'."},
                                                     {LogLevel::Info, L"Unsubscribed from metric 'fake|one'."}}));
    sink->Release();
}

TEST_F(ProviderTest, QueryReturnsTheMetricsResultWithTheTypedSinkOrANullOne)
{
    Connect();
    collect_ = [] { return static_cast<HRESULT>(0x80070005); };
    ASSERT_EQ(Subscribe(L"fake|q"), S_OK);
    auto record = records_[0];

    auto* sink = new RecordingSink();
    EXPECT_EQ(Query(L"fake|q", sink, 77), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(record->lastSink, static_cast<IMetricValueSink*>(sink));
    EXPECT_EQ(record->lastContext, 77);

    // An object without IMetricValueSink reaches the metric as a null sink; so does null.
    EXPECT_EQ(Query(L"fake|q", context_), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(record->lastSink, nullptr);
    record->lastSink = reinterpret_cast<IMetricValueSink*>(1);
    EXPECT_EQ(Query(L"fake|q", nullptr), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(record->lastSink, nullptr);

    // QueryMetricToSink hands the sink over untested.
    EXPECT_EQ(provider_->QueryMetricToSink(Bstr(L"fake|q"), 5, nullptr), static_cast<HRESULT>(0x80070005));
    EXPECT_EQ(record->collects, 4);
    EXPECT_EQ(sink->References(), 1u);
    sink->Release();
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
    EXPECT_EQ(lines[1], (LogLine{LogLevel::Error, std::wstring(L"Failed to subscribe metric 'fake|bad'.  Error code "
                                                               L"0x80070490 -- ") +
                                                      notFound.systemText.get()}));
    EXPECT_EQ(lines[3], (LogLine{LogLevel::Error, L"Failed to subscribe metric 'fake|bad'.  Error code 0xa1b2c3d4."}));

    // Nothing was stored.
    logger_->Clear();
    EXPECT_EQ(Query(L"fake|bad", nullptr), S_OK);
    EXPECT_EQ(logger_->Texts(), std::vector<std::wstring>{L"Metric 'fake|bad' should be queried from internal metric."});
}

TEST_F(ProviderTest, TableKeysAreExactWhileFactoryNamesIgnoreCase)
{
    Connect();
    // The real factory knows its names in any letter case; a name it does not
    // know creates nothing, logs nothing and stores nothing.
    impl_->UseMetricFactory([this](const wchar_t* name, ComPtr<IProviderLogger> logger,
                                   ComPtr<IProviderHostContext> context) -> std::shared_ptr<CMetric> {
        if (!IsMetricName(name, L"fake|metric")) {
            return nullptr;
        }
        auto record = std::make_shared<FakeMetricRecord>();
        records_.push_back(record);
        return std::make_shared<FakeMetric>(name, logger.Get(), context.Get(), record, S_OK, nullptr);
    });
    EXPECT_EQ(Subscribe(L"fake|metricx"), S_OK);
    EXPECT_EQ(Subscribe(L"fake|metri"), S_OK);
    EXPECT_TRUE(logger_->Lines().empty());

    ASSERT_EQ(Subscribe(L"FAKE|METRIC"), S_OK);
    ASSERT_EQ(records_.size(), 1u);
    EXPECT_EQ(records_[0]->name, L"FAKE|METRIC");
    logger_->Clear();

    auto* sink = new RecordingSink();
    EXPECT_EQ(Query(L"fake|metric", sink), S_OK);
    EXPECT_EQ(records_[0]->collects, 0);
    EXPECT_EQ(Unsubscribe(L"fake|metric"), S_OK);
    EXPECT_EQ(records_[0]->unsubscribes, 0);
    EXPECT_EQ(logger_->Texts(), std::vector<std::wstring>{L"Metric 'fake|metric' should be queried from internal metric."});

    EXPECT_EQ(Query(L"FAKE|METRIC", sink), S_OK);
    EXPECT_EQ(records_[0]->collects, 1);
    EXPECT_EQ(Unsubscribe(L"FAKE|METRIC"), S_OK);
    EXPECT_EQ(records_[0]->unsubscribes, 1);
    EXPECT_TRUE(records_[0]->destroyed);
    sink->Release();
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

TEST_F(ProviderTest, SecondSubscribeOfASubscribedNameIsASilentNoOp)
{
    Connect();
    ASSERT_EQ(Subscribe(L"fake|twice"), S_OK);
    logger_->Clear();
    auto other = test::MakeMetricConfig(L"System", L"*");
    EXPECT_EQ(provider_->SubscribeMetric(Bstr(L"fake|twice"), other.Get()), S_OK);
    EXPECT_EQ(factoryCalls_, 1);
    EXPECT_EQ(records_[0]->subscribes, 1);
    EXPECT_FALSE(records_[0]->destroyed);
    EXPECT_TRUE(logger_->Lines().empty());
}

TEST_F(ProviderTest, NullArgumentsAndNonElementConfigurationsAreInvalidAndLogNothing)
{
    Connect();
    EXPECT_EQ(provider_->SubscribeMetric(nullptr, config_.Get()), E_INVALIDARG);
    EXPECT_EQ(provider_->SubscribeMetric(Bstr(L"fake|x"), nullptr), E_INVALIDARG);
    EXPECT_EQ(provider_->SubscribeMetric(Bstr(L"fake|x"), context_), E_INVALIDARG);
    EXPECT_EQ(provider_->UnsubscribeMetric(nullptr), E_INVALIDARG);
    EXPECT_EQ(provider_->QueryMetric(nullptr, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(provider_->QueryMetricToSink(nullptr, 0, nullptr), E_INVALIDARG);
    EXPECT_EQ(factoryCalls_, 0);
    EXPECT_TRUE(logger_->Lines().empty());
    EXPECT_EQ(Unsubscribe(L"fake|never"), S_OK);
    EXPECT_TRUE(logger_->Lines().empty());
}

TEST_F(ProviderTest, UnsubscribeAllWalksTheTableInOrdinalOrderAndLogsEvenWhenEmpty)
{
    Connect();
    EXPECT_EQ(provider_->UnsubscribeAllMetrics(), S_OK);
    EXPECT_EQ(logger_->Texts(), std::vector<std::wstring>{L"Unsubscribed all metrics."});

    for (const wchar_t* name : {L"fake|b", L"fake|a", L"fake|B", L"fake|ab"}) {
        ASSERT_EQ(Subscribe(name), S_OK);
    }
    EXPECT_EQ(provider_->UnsubscribeAllMetrics(), S_OK);
    EXPECT_EQ(unsubscribeOrder_, (std::vector<std::wstring>{L"fake|B", L"fake|a", L"fake|ab", L"fake|b"}));
    for (const auto& record : records_) {
        EXPECT_TRUE(record->destroyed);
    }
    EXPECT_EQ(logger_->Texts().back(), L"Unsubscribed all metrics.");
    EXPECT_EQ(Query(L"fake|a", nullptr), S_OK);
}

TEST_F(ProviderTest, ReleaseDestroysMetricsWithoutUnsubscribingThenReleasesHostObjects)
{
    Connect();
    ASSERT_EQ(Subscribe(L"fake|kept"), S_OK);
    const ULONG configReferences = (config_->AddRef(), config_->Release());
    auto record = records_[0];
    EXPECT_GT(logger_->References(), 1u);
    provider_.Reset();
    EXPECT_TRUE(record->destroyed);
    EXPECT_EQ(record->unsubscribes, 0);
    EXPECT_EQ(logger_->References(), 1u);
    EXPECT_EQ(context_->References(), 1u);
    EXPECT_EQ(config_->AddRef() - 1, configReferences);
    config_->Release();
}

TEST_F(ProviderTest, SetHostInterfacesKeepsOneReferenceAndMetricsKeepTheirOwn)
{
    EXPECT_EQ(provider_->SetHostInterfaces(nullptr, context_), E_INVALIDARG);
    EXPECT_EQ(provider_->SetHostInterfaces(logger_, nullptr), E_INVALIDARG);
    EXPECT_EQ(logger_->References(), 1u);
    EXPECT_EQ(context_->References(), 1u);

    // Without host interfaces metrics get null ones and nothing is logged.
    ASSERT_EQ(Subscribe(L"fake|early"), S_OK);
    EXPECT_EQ(records_[0]->logger, nullptr);

    Connect();
    EXPECT_EQ(logger_->References(), 2u);
    EXPECT_EQ(context_->References(), 2u);
    Connect();  // the same pointers again change nothing
    EXPECT_EQ(logger_->References(), 2u);
    EXPECT_EQ(context_->References(), 2u);

    ASSERT_EQ(Subscribe(L"fake|late"), S_OK);
    EXPECT_EQ(logger_->References(), 3u);  // the metric holds one too

    auto* logger2 = new RecordingLogger(0x7);
    auto* context2 = new CountingHostContext();
    ASSERT_EQ(provider_->SetHostInterfaces(logger2, context2), S_OK);
    EXPECT_EQ(logger_->References(), 2u);  // only the metric's is left
    EXPECT_EQ(context_->References(), 2u);
    EXPECT_EQ(logger2->References(), 2u);
    EXPECT_EQ(records_[1]->logger, logger_);  // existing metrics keep theirs

    provider_.Reset();
    EXPECT_EQ(logger2->References(), 1u);
    EXPECT_EQ(context2->References(), 1u);
    logger2->Release();
    context2->Release();
}

TEST_F(ProviderTest, InfoLinesNeedTheInfoLevelAndErrorLinesTheErrorLevel)
{
    logger_->SetLevels(0x1);
    Connect();
    ASSERT_EQ(Subscribe(L"fake|quiet"), S_OK);
    EXPECT_EQ(Query(L"fake|nothing", nullptr), S_OK);
    EXPECT_EQ(provider_->UnsubscribeAllMetrics(), S_OK);
    EXPECT_TRUE(logger_->Lines().empty());

    logger_->SetLevels(0x4);
    subscribeResult_ = E_FAIL;
    EXPECT_EQ(Subscribe(L"fake|loud"), E_FAIL);
    EXPECT_EQ(logger_->Texts(), std::vector<std::wstring>{L"created metric 'fake|loud'."});
}

TEST_F(ProviderTest, ReservedMethodsAnswerSOk)
{
    EXPECT_EQ(provider_->Reserved1(), S_OK);
    EXPECT_EQ(provider_->Reserved2(), S_OK);
    EXPECT_EQ(provider_->Reserved3(), S_OK);
    EXPECT_EQ(provider_->Reserved4(), S_OK);
    EXPECT_EQ(provider_->Reserved5(), S_OK);
    EXPECT_EQ(provider_->Reserved6(), S_OK);
}

TEST_F(ProviderTest, EveryProviderInterfaceIsTheSamePointerAndHoldsAModuleLock)
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
}

TEST_F(ProviderTest, ExceptionsFromMetricsBecomeHResults)
{
    Connect();
    collect_ = []() -> HRESULT { throw std::bad_alloc(); };
    ASSERT_EQ(Subscribe(L"fake|oom"), S_OK);
    EXPECT_EQ(Query(L"fake|oom", nullptr), E_OUTOFMEMORY);

    collect_ = []() -> HRESULT { throw std::runtime_error("lock"); };
    ASSERT_EQ(Subscribe(L"fake|odd"), S_OK);
    EXPECT_EQ(Query(L"fake|odd", nullptr), E_UNEXPECTED);

    impl_->UseMetricFactory([](const wchar_t*, ComPtr<IProviderLogger>, ComPtr<IProviderHostContext>)
                                -> std::shared_ptr<CMetric> { throw HResultError(E_ACCESSDENIED); });
    EXPECT_EQ(Subscribe(L"fake|denied"), E_ACCESSDENIED);
}

}  // namespace
}  // namespace zeph
