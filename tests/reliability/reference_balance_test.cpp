// zeph_eventlog.dll loaded as a host loads it (LoadLibrary, DllGetClassObject,
// the class factory): after a full session every host object is back at its
// starting reference count and the DLL says it may be unloaded.
#include "config_element.h"
#include "provider/metric_factory.h"
#include "recording_sink.h"
#include "reliability_host.h"
#include "simulated_event_log.h"

#include <zeph_eventlog_h.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;

constexpr wchar_t kDllName[] = L"zeph_eventlog.dll";
constexpr wchar_t kCrashChannel[] = L"ZephBalanceCrashes";
constexpr wchar_t kLayeringChannel[] = L"ZephBalanceLayering";
constexpr wchar_t kCrashPublisher[] = L"Application Error";

void Crash(const wchar_t* message)
{
    WriteEvent(kCrashChannel, kCrashPublisher, 1000, FileTimeOf(2025, 1, 2, 3, 4, 5), message);
}

void LayeringEvent(const wchar_t* message)
{
    WriteEvent(kLayeringChannel, L"drovesvc", 3, FileTimeOf(2025, 1, 2, 3, 4, 5), message);
}

TEST(ReferenceBalanceTest, AFullSessionThroughTheDllGivesBackEveryReferenceAndLetsItGo)
{
    AddChannels({kCrashChannel, kLayeringChannel});
    ServiceInstall service;
    MirrorComputerName(service.Registry());
    service.SetManager(L"manager.zeph.test:443");
    service.WriteLog(L"earlier\r\n");
    ASSERT_EQ(::GetModuleHandleW(kDllName), nullptr) << "the DLL is loaded before the test loads it";

    const ComPtr<RecordingLogger> logger = Adopt(new RecordingLogger(0x7));
    const ComPtr<CountingHostContext> context = Adopt(new CountingHostContext());
    const ComPtr<RecordingSink> sink = Adopt(new RecordingSink());
    const ComPtr<RecordingSink> refusingSink = Adopt(new RecordingSink());
    refusingSink->Refuse(L"appcrash|crash_details|*", E_FAIL);
    const ComPtr<IXMLDOMElement> crashConfig = MakeMetricConfig(kCrashChannel, L"*");
    const ComPtr<IXMLDOMElement> layeringConfig = MakeMetricConfig(kLayeringChannel, L"*");
    const ComPtr<IXMLDOMElement> brokenConfig = MakeConfigElement(L"<metric channel='attributes are not read'/>");
    ASSERT_TRUE(crashConfig && layeringConfig && brokenConfig);
    // logger, context, sink, refusing sink, crash, layering and broken configurations
    const std::vector<IUnknown*> hostObjects = {logger.Get(),      context.Get(),        sink.Get(),
                                                refusingSink.Get(), crashConfig.Get(), layeringConfig.Get(),
                                                brokenConfig.Get()};
    std::vector<ULONG> startReferences;
    for (IUnknown* object : hostObjects) {
        startReferences.push_back(ReferencesOf(object));
    }
    const auto expectReferencesAsAtStart = [&](const char* when) {
        for (size_t i = 0; i < hostObjects.size(); ++i) {
            EXPECT_EQ(ReferencesOf(hostObjects[i]), startReferences[i]) << "host object " << i << " " << when;
        }
    };
    const unique_bstr crashName = MakeBstr(kAppCrashMetricName);
    const unique_bstr layeringName = MakeBstr(kQuillonMetricName);

    const HMODULE dll = ::LoadLibraryW(kDllName);
    ASSERT_NE(dll, nullptr) << "bin/zeph_eventlog.dll is missing";
    const auto canUnloadNow = reinterpret_cast<HRESULT(STDAPICALLTYPE*)()>(
        reinterpret_cast<void*>(::GetProcAddress(dll, "DllCanUnloadNow")));
    const auto getClassObject = reinterpret_cast<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>(
        reinterpret_cast<void*>(::GetProcAddress(dll, "DllGetClassObject")));
    ASSERT_TRUE(canUnloadNow && getClassObject);
    const auto createProvider = [&] {
        ComPtr<IClassFactory> factory;
        EXPECT_EQ(getClassObject(CLSID_Provider, IID_PPV_ARGS(&factory)), S_OK);
        ComPtr<IZephDataProvider> provider;
        if (factory) {
            EXPECT_EQ(factory->CreateInstance(nullptr, IID_PPV_ARGS(&provider)), S_OK);
        }
        return provider;
    };
    EXPECT_EQ(canUnloadNow(), S_OK);
    {
        ComPtr<IZephDataProvider> provider = createProvider();
        ASSERT_TRUE(provider);
        EXPECT_EQ(canUnloadNow(), S_FALSE) << "a provider is alive";
        ASSERT_EQ(provider->SetHostInterfaces(logger.Get(), context.Get()), S_OK);
        ASSERT_EQ(provider->SetHostInterfaces(logger.Get(), context.Get()), S_OK);
        ASSERT_EQ(provider->SubscribeMetric(crashName.get(), crashConfig.Get()), S_OK);
        ASSERT_EQ(provider->SubscribeMetric(crashName.get(), layeringConfig.Get()), S_OK);  // already there
        ASSERT_EQ(provider->SubscribeMetric(layeringName.get(), brokenConfig.Get()),
                  HRESULT_FROM_WIN32(ERROR_NOT_FOUND));
        ASSERT_EQ(provider->SubscribeMetric(layeringName.get(), layeringConfig.Get()), S_OK);

        // Deliveries into both metrics, the layering one reading its service log.
        LayeringEvent(L"User is logging in");
        WaitForDeliveries();
        service.AppendLog(L"Manager status 200 response\r\nMOUNTED-READ;C:\\Tesseras\\one.vhdx;one-1\r\n");
        LayeringEvent(L"All volumes finished processing");
        for (const wchar_t* message : {L"first crash", L"second crash\r\nline two", L"third crash"}) {
            Crash(message);
        }
        WaitForDeliveries();

        // Queries: refused, accepted, through something that is no sink, of an unknown name.
        EXPECT_EQ(provider->QueryMetric(crashName.get(), 0, refusingSink.Get()), E_FAIL);
        EXPECT_EQ(provider->QueryMetric(crashName.get(), 0, sink.Get()), S_OK);
        EXPECT_EQ(provider->QueryMetric(crashName.get(), 0, context.Get()), S_OK);
        EXPECT_EQ(provider->QueryMetric(layeringName.get(), 0, sink.Get()), S_OK);
        EXPECT_EQ(provider->QueryMetricToSink(layeringName.get(), 0, nullptr), E_POINTER);
        EXPECT_EQ(provider->QueryMetric(MakeBstr(L"eventlog|not_a_metric").get(), 0, sink.Get()), S_OK);
        size_t details = 0;
        size_t instances = 0;
        for (const SinkWrite& write : sink->Accepted()) {
            details += write.key == L"appcrash|crash_details|*" ? 1 : 0;
            instances += write.key == L"quillon|instances|*" ? 1 : 0;
        }
        EXPECT_EQ(details, 3u);
        EXPECT_EQ(instances, 1u);

        EXPECT_EQ(provider->UnsubscribeMetric(crashName.get()), S_OK);
        EXPECT_EQ(provider->UnsubscribeAllMetrics(), S_OK);

        // Released with both metrics subscribed and deliveries possibly in flight.
        ASSERT_EQ(provider->SubscribeMetric(crashName.get(), crashConfig.Get()), S_OK);
        ASSERT_EQ(provider->SubscribeMetric(layeringName.get(), layeringConfig.Get()), S_OK);
        Crash(L"pending at release");
        LayeringEvent(L"User is logging in");
    }
    EXPECT_EQ(canUnloadNow(), S_OK);
    expectReferencesAsAtStart("right after the release");
    WaitForDeliveries();
    expectReferencesAsAtStart("after the deliveries");
    ::FreeLibrary(dll);
    EXPECT_EQ(::GetModuleHandleW(kDllName), nullptr) << "something still holds the DLL";
    EXPECT_EQ(::EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION), 0);
    EXPECT_EQ(Counters().deliveriesAfterClose, 0);
    EXPECT_EQ(Counters().doubleCloses, 0);
}

}  // namespace
}  // namespace zeph
