#include "com_object.h"
#include "com_strings.h"
#include "config_element.h"
#include "layering_env.h"
#include "provider.h"
#include "quillon_test_events.h"
#include "recording_logger.h"
#include "recording_sink.h"

#include <gtest/gtest.h>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;

// From the host's side: the provider subscribes the metric, the service's
// events arrive on the event log's thread (which reads the registry and the
// service log), and a query yields every value.
TEST(QuillonProviderTest, LogOnThroughTheProviderReportsStampsManagerAndTesseras)
{
    const ComPtr<IXMLDOMElement> config =
        MakeMetricConfig(L"Application", L"*[System[Provider[@Name='drovesvc']]]");
    ASSERT_TRUE(config);
    ServiceInstall service;
    service.SetManager(L"quillon-mgr.corp.example:443");
    service.WriteLog(L"2023-11-14 22:00:00 MOUNTED-READ;D:\\Tesseras\\stale.vhdx;{stale}\r\n");

    auto* logger = new RecordingLogger(0x7);
    auto* context = new CountingHostContext();
    auto* sink = new RecordingSink();
    {
        ComPtr<IZephDataProvider> provider;
        ASSERT_EQ(ComObject<CProvider>::Create(IID_PPV_ARGS(&provider)), S_OK);
        ASSERT_EQ(provider->SetHostInterfaces(logger, context), S_OK);
        const unique_bstr name = MakeBstr(L"eventlog|eventlog_quillon");
        ASSERT_EQ(provider->SubscribeMetric(name.get(), config.Get()), S_OK);

        WriteQuillonEvent(L"Application", L"User is logging in", kTime1);
        WaitForDeliveries();
        service.AppendLog(L"2023-11-14 22:13:25 Manager status 200 response\r\n"
                          L"2023-11-14 22:13:26 MOUNTED-READ;D:\\Tesseras\\office.vhdx;{0A1B}\r\n"
                          L"2023-11-14 22:13:27 MOUNTED-READ;D:\\Tesseras\\tools.vhdx;{2C3D}\r\n");
        WriteQuillonEvent(L"Application", L"Response 200 from Manager", kTime2);
        WriteQuillonEvent(L"Application", L"New volume event (mounted): D:\\Tesseras (VolumeType 2)", kTime3);
        WriteQuillonEvent(L"Application", L"All volumes finished processing", kTime4);
        WaitForDeliveries();

        EXPECT_EQ(provider->QueryMetric(name.get(), 0, sink), S_OK);
        EXPECT_EQ(Describe(sink->Writes()),
                  (std::vector<std::wstring>{
                      L"quillon|logon_timestamp quillon = u:1700000000123",
                      L"quillon|logon_response_timestamp quillon = u:1700000005123",
                      L"quillon|volumes_ready_timestamp quillon = u:1700000010123",
                      L"quillon|all_done_timestamp quillon = u:1700000015123",
                      L"quillon|mgr quillon|mgr = s:quillon-mgr.corp.example",
                      L"quillon|instances quillon|instances = s:true",
                      L"quillon|instances|* {0A1B} = s:D:\\Tesseras\\office.vhdx",
                      L"quillon|instances|* {2C3D} = s:D:\\Tesseras\\tools.vhdx",
                  }));
        EXPECT_TRUE(logger->Has(LogLevel::Info, L"drovesvc log path: " + service.LogsFolder()));
    }
    EXPECT_EQ(logger->Release(), 0u);
    EXPECT_EQ(context->Release(), 0u);
    sink->Release();
}

}  // namespace
}  // namespace zeph
