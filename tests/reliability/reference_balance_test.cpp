// zeph_eventlog.dll loaded as a host loads it (LoadLibrary, DllGetClassObject,
// the class factory): after a full session every host object is back at the
// reference count it started with, and the DLL says it may be unloaded.
#include "config_element.h"
#include "layering_env.h"
#include "metric_factory.h"
#include "recording_logger.h"
#include "recording_sink.h"
#include "reliability_host.h"
#include "simulated_event_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;

constexpr CLSID kClsidProvider = {0xDAF69464, 0xF4E2, 0x40C0, {0xBC, 0xC3, 0xA3, 0x0E, 0x81, 0x99, 0x75, 0xF0}};
constexpr wchar_t kDllName[] = L"zeph_eventlog.dll";
constexpr wchar_t kCrashChannel[] = L"ZephBalanceCrashes";
constexpr wchar_t kLayeringChannel[] = L"ZephBalanceLayering";
constexpr wchar_t kCrashQuery[] = L"*[System[Provider[@Name='Application Error']]]";
constexpr wchar_t kCrashPublisher[] = L"Application Error";

std::wstring BinFolder()
{
    std::wstring path(MAX_PATH, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

// The DLL and the two exports a host uses to create and let go of it.
class HostLoadedDll {
public:
    HostLoadedDll() : module_(::LoadLibraryW((BinFolder() + kDllName).c_str()))
    {
        if (module_ == nullptr) {
            return;
        }
        canUnloadNow_ = reinterpret_cast<CanUnloadNow>(
            reinterpret_cast<void*>(::GetProcAddress(module_, "DllCanUnloadNow")));
        getClassObject_ = reinterpret_cast<GetClassObject>(
            reinterpret_cast<void*>(::GetProcAddress(module_, "DllGetClassObject")));
    }
    ~HostLoadedDll() { Free(); }
    HostLoadedDll(const HostLoadedDll&) = delete;
    HostLoadedDll& operator=(const HostLoadedDll&) = delete;

    bool Loaded() const { return module_ != nullptr && canUnloadNow_ != nullptr && getClassObject_ != nullptr; }
    HRESULT CanUnloadNowResult() const { return canUnloadNow_(); }

    ComPtr<IZephDataProvider> CreateProvider() const
    {
        ComPtr<IClassFactory> factory;
        EXPECT_EQ(getClassObject_(kClsidProvider, IID_PPV_ARGS(&factory)), S_OK);
        ComPtr<IZephDataProvider> provider;
        if (factory) {
            EXPECT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&provider)), S_OK);
        }
        return provider;
    }

    // What a host does once DllCanUnloadNow said S_OK.
    void Free()
    {
        if (module_ != nullptr) {
            ::FreeLibrary(module_);
            module_ = nullptr;
        }
    }

private:
    using CanUnloadNow = HRESULT(STDAPICALLTYPE*)();
    using GetClassObject = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);

    HMODULE module_;
    CanUnloadNow canUnloadNow_ = nullptr;
    GetClassObject getClassObject_ = nullptr;
};

void WriteSimEvent(const wchar_t* channel, const wchar_t* publisher, USHORT id, const wchar_t* message)
{
    WriteEvent(channel, publisher, id, FileTimeOf(2025, 1, 2, 3, 4, 5), message);
}

class ReferenceBalanceTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        for (const wchar_t* channel : {kCrashChannel, kLayeringChannel}) {
            const DWORD added = ::EvtSimAddChannel(channel);
            ASSERT_TRUE(added == ERROR_SUCCESS || added == ERROR_ALREADY_EXISTS);
        }
        MirrorComputerName(service_.Registry());
        service_.SetManager(L"manager.zeph.test:443");
        service_.WriteLog(L"earlier\r\n");
        ASSERT_EQ(::GetModuleHandleW(kDllName), nullptr) << "the DLL is loaded before the test loads it";
        logger_ = Adopt(new RecordingLogger(0x7));
        context_ = Adopt(new CountingHostContext());
        sink_ = Adopt(new RecordingSink());
        refusingSink_ = Adopt(new RecordingSink());
        refusingSink_->Refuse(L"appcrash|crash_details|*", E_FAIL);
        crashConfig_ = MakeMetricConfig(kCrashChannel, kCrashQuery);
        layeringConfig_ = MakeMetricConfig(kLayeringChannel, L"*");
        brokenConfig_ = MakeConfigElement(L"<metric channel='attributes are not read'/>");
        ASSERT_TRUE(crashConfig_ && layeringConfig_ && brokenConfig_);
        for (IUnknown* object : HostObjects()) {
            startReferences_.push_back(ReferencesOf(object));
        }
    }

    std::vector<IUnknown*> HostObjects() const
    {
        return {logger_.Get(),      context_.Get(),        sink_.Get(),         refusingSink_.Get(),
                crashConfig_.Get(), layeringConfig_.Get(), brokenConfig_.Get()};
    }

    void ExpectReferencesAsAtStart() const
    {
        const char* const names[] = {"logger", "context", "sink", "refusing sink", "crash configuration",
                                     "layering configuration", "broken configuration"};
        const std::vector<IUnknown*> objects = HostObjects();
        for (size_t i = 0; i < objects.size(); ++i) {
            EXPECT_EQ(ReferencesOf(objects[i]), startReferences_[i]) << names[i];
        }
    }

    ServiceInstall service_;
    ComPtr<RecordingLogger> logger_;
    ComPtr<CountingHostContext> context_;
    ComPtr<RecordingSink> sink_;
    ComPtr<RecordingSink> refusingSink_;
    ComPtr<IXMLDOMElement> crashConfig_;
    ComPtr<IXMLDOMElement> layeringConfig_;
    ComPtr<IXMLDOMElement> brokenConfig_;
    std::vector<ULONG> startReferences_;
    const unique_bstr crashName_ = Bstr(kAppCrashMetricName);
    const unique_bstr layeringName_ = Bstr(kQuillonMetricName);
};

TEST_F(ReferenceBalanceTest, AFullSessionGivesBackEveryReferenceAndLetsTheDllGo)
{
    HostLoadedDll dll;
    ASSERT_TRUE(dll.Loaded()) << "bin/zeph_eventlog.dll or its exports are missing";
    EXPECT_EQ(dll.CanUnloadNowResult(), S_OK);
    {
        ComPtr<IZephDataProvider> provider = dll.CreateProvider();
        ASSERT_TRUE(provider);
        EXPECT_EQ(dll.CanUnloadNowResult(), S_FALSE) << "a provider is alive";

        ASSERT_EQ(provider->SetHostInterfaces(logger_.Get(), context_.Get()), S_OK);
        ASSERT_EQ(provider->SetHostInterfaces(logger_.Get(), context_.Get()), S_OK);
        ASSERT_EQ(provider->SubscribeMetric(crashName_.get(), crashConfig_.Get()), S_OK);
        ASSERT_EQ(provider->SubscribeMetric(crashName_.get(), layeringConfig_.Get()), S_OK);  // already there
        ASSERT_EQ(provider->SubscribeMetric(layeringName_.get(), brokenConfig_.Get()),
                  HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
        ASSERT_EQ(provider->SubscribeMetric(layeringName_.get(), layeringConfig_.Get()), S_OK);

        // Deliveries into both metrics, the layering one reading its service log.
        WriteSimEvent(kLayeringChannel, L"drovesvc", 3, L"User is logging in");
        WaitForDeliveries();
        service_.AppendLog(L"Manager status 200 response\r\nMOUNTED-READ;C:\\Tesseras\\one.vhdx;one-1\r\n");
        WriteSimEvent(kLayeringChannel, L"drovesvc", 3, L"All volumes finished processing");
        for (const wchar_t* message : {L"first crash", L"second crash\r\nline two", L"third crash"}) {
            WriteSimEvent(kCrashChannel, kCrashPublisher, 1000, message);
        }
        WaitForDeliveries();

        // Queries: refused, accepted, through something that is no sink, and unknown.
        EXPECT_EQ(provider->QueryMetric(crashName_.get(), 0, refusingSink_.Get()), E_FAIL);
        EXPECT_EQ(provider->QueryMetric(crashName_.get(), 0, sink_.Get()), S_OK);
        EXPECT_EQ(provider->QueryMetric(crashName_.get(), 0, context_.Get()), S_OK);
        EXPECT_EQ(provider->QueryMetric(layeringName_.get(), 0, sink_.Get()), S_OK);
        EXPECT_EQ(provider->QueryMetricToSink(layeringName_.get(), 0, nullptr), E_POINTER);
        const unique_bstr unknown = Bstr(L"eventlog|not_a_metric");
        EXPECT_EQ(provider->QueryMetric(unknown.get(), 0, sink_.Get()), S_OK);

        size_t details = 0;
        size_t instances = 0;
        for (const SinkWrite& write : sink_->Accepted()) {
            details += write.key == L"appcrash|crash_details|*" ? 1 : 0;
            instances += write.key == L"quillon|instances|*" ? 1 : 0;
        }
        EXPECT_EQ(details, 3u);
        EXPECT_EQ(instances, 1u);

        // Unsubscribe both ways, then leave one subscribed for the release to end.
        EXPECT_EQ(provider->UnsubscribeMetric(crashName_.get()), S_OK);
        EXPECT_EQ(provider->UnsubscribeAllMetrics(), S_OK);
        ASSERT_EQ(provider->SubscribeMetric(crashName_.get(), crashConfig_.Get()), S_OK);
        WriteSimEvent(kCrashChannel, kCrashPublisher, 1000, L"pending at release");
        WaitForDeliveries();
        EXPECT_EQ(dll.CanUnloadNowResult(), S_FALSE);
    }
    WaitForDeliveries();

    ExpectReferencesAsAtStart();
    EXPECT_EQ(dll.CanUnloadNowResult(), S_OK);
    dll.Free();
    EXPECT_EQ(::GetModuleHandleW(kDllName), nullptr) << "something still holds the DLL";
    EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION), 0);
    EXPECT_EQ(Counters().deliveriesAfterClose, 0);
    EXPECT_EQ(Counters().doubleCloses, 0);
}

TEST_F(ReferenceBalanceTest, ProvidersReleasedWithMetricsSubscribedGiveBackEveryReference)
{
    HostLoadedDll dll;
    ASSERT_TRUE(dll.Loaded()) << "bin/zeph_eventlog.dll or its exports are missing";
    ComPtr<IZephDataProvider> provider = dll.CreateProvider();
    ASSERT_TRUE(provider);
    ASSERT_EQ(provider->SetHostInterfaces(logger_.Get(), context_.Get()), S_OK);
    ASSERT_EQ(provider->SubscribeMetric(crashName_.get(), crashConfig_.Get()), S_OK);
    ASSERT_EQ(provider->SubscribeMetric(layeringName_.get(), layeringConfig_.Get()), S_OK);
    WriteSimEvent(kCrashChannel, kCrashPublisher, 1000, L"crash before the release");
    WriteSimEvent(kLayeringChannel, L"drovesvc", 3, L"User is logging in");

    // A second provider of the same DLL, created and released while the first lives.
    ComPtr<IZephDataProvider> second = dll.CreateProvider();
    ASSERT_TRUE(second);
    ASSERT_EQ(second->SetHostInterfaces(logger_.Get(), context_.Get()), S_OK);
    ASSERT_EQ(second->SubscribeMetric(crashName_.get(), crashConfig_.Get()), S_OK);
    second.Reset();
    EXPECT_EQ(dll.CanUnloadNowResult(), S_FALSE);

    // Released with both metrics subscribed and deliveries possibly in flight.
    provider.Reset();
    EXPECT_EQ(dll.CanUnloadNowResult(), S_OK);
    ExpectReferencesAsAtStart();
    WaitForDeliveries();
    ExpectReferencesAsAtStart();
    EXPECT_EQ(Counters().deliveriesAfterClose, 0);
}

}  // namespace
}  // namespace zeph
