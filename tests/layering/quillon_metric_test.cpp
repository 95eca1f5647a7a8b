#include "config_element.h"
#include "layering_env.h"
#include "metric_factory.h"
#include "quillon_metric.h"
#include "quillon_test_events.h"
#include "recording_logger.h"
#include "recording_sink.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;
using Texts = std::vector<std::wstring>;

constexpr wchar_t kChannel[] = L"ZephLayering";
constexpr wchar_t kQuery[] = L"*[System[Provider[@Name='drovesvc']]]";

Texts Stamps(ULONGLONG logon, ULONGLONG response, ULONGLONG volumesReady, ULONGLONG allDone)
{
    return {L"quillon|logon_timestamp quillon = u:" + std::to_wstring(logon),
            L"quillon|logon_response_timestamp quillon = u:" + std::to_wstring(response),
            L"quillon|volumes_ready_timestamp quillon = u:" + std::to_wstring(volumesReady),
            L"quillon|all_done_timestamp quillon = u:" + std::to_wstring(allDone)};
}

Texts Joined(Texts first, const Texts& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class QuillonMetricTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { EvtSimAddChannel(kChannel); }

    void SetUp() override
    {
        ASSERT_TRUE(config_);
        metric_ = std::make_shared<CQuillonMetric>(kQuillonMetricName, logger_.Get(), context_.Get());
        ASSERT_EQ(metric_->Subscribe(config_.Get()), S_OK);
        ASSERT_NE(metric_->SubscriptionHandle(), nullptr);
    }

    void Event(const std::wstring& message, ULONGLONG time, DWORD flags = 0)
    {
        WriteQuillonEvent(kChannel, message, time, flags);
    }

    // Lets the events written so far arrive, then queries into sink.
    HRESULT Collect(IMetricValueSink* sink)
    {
        WaitForDeliveries();
        sink_->Clear();
        logger_->Clear();
        return metric_->CollectMetric(sink, 0);
    }

    Texts Written() const { return Describe(sink_->Writes()); }

    // Error lines up to and including the code (the system's text varies).
    Texts ErrorHeads() const
    {
        Texts heads;
        for (const LogLine& line : logger_->Lines()) {
            if (line.level == LogLevel::Error) {
                const size_t code = line.text.find(L"  Error code 0x");
                heads.push_back(code == std::wstring::npos ? line.text : line.text.substr(0, code + 23));
            }
        }
        return heads;
    }

    ComPtr<IXMLDOMElement> config_ = MakeMetricConfig(kChannel, kQuery);  // before the registry is redirected
    ServiceInstall service_;
    ComPtr<RecordingLogger> logger_ = Adopt(new RecordingLogger(0x7));
    ComPtr<CountingHostContext> context_ = Adopt(new CountingHostContext());
    ComPtr<RecordingSink> sink_ = Adopt(new RecordingSink());
    std::shared_ptr<CQuillonMetric> metric_;
};

TEST_F(QuillonMetricTest, LogOnSequenceGivesFourStampsAndASecondLogOnKeepsTheFirstResponse)
{
    Event(L"User is logging in", kTime1);
    Event(L"Response 200 from Manager", kTime2);
    Event(L"Response received from Manager for LOGIN", kTime3);
    Event(L"New volume event (mounted): V1 (VolumeType 2)", kTime3);
    Event(L"All volumes finished processing", kTime4);
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Stamps(1700000000123, 1700000005123, 1700000010123, 1700000015123));

    Event(L"User is logging in", kTime5);
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Stamps(1700000020123, 1700000005123, 1700000010123, 1700000015123));
}

TEST_F(QuillonMetricTest, LogOffClearsTheStampsButKeepsTheTesseras)
{
    Event(L"User is logging in", kTime1);
    Event(L"Response 200 from Manager\r\nMOUNTED-READ;C:\\T\\a.vhdx;a1\r\n", kTime2);
    Event(L"User is logging off", kTime3);
    WaitForDeliveries();
    EXPECT_TRUE(logger_->Has(LogLevel::Info, L"Try to find Tessera from event log"));
    EXPECT_TRUE(logger_->Has(LogLevel::Info, L"Find tessera path: C:\\T\\a.vhdx"));

    const Texts flag{L"quillon|instances quillon|instances = s:true"};
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Joined(flag, {L"quillon|instances|* a1 = s:C:\\T\\a.vhdx"}));
    EXPECT_TRUE(logger_->Has(LogLevel::Info, L"Not got time stamps for quillon event."));

    // A response with no log-on before it sets no stamp, yet its Tesseras count.
    Event(L"Response 200 from Manager\r\nMOUNTED-READ;C:\\T\\b.vhdx;b1\r\n", kTime4);
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Joined(flag, {L"quillon|instances|* a1 = s:C:\\T\\a.vhdx",
                                       L"quillon|instances|* b1 = s:C:\\T\\b.vhdx"}));
    EXPECT_TRUE(logger_->Has(LogLevel::Info, L"Not got time stamps for quillon event."));

    // The next log-on starts a new list.
    Event(L"User is logging in", kTime5);
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Stamps(1700000020123, 1700000020123, 1700000020123, 1700000020123));
    EXPECT_TRUE(logger_->Has(LogLevel::Info, L"No tessera mounted."));
}

TEST_F(QuillonMetricTest, MissingStampsAreFilledFromEarlierOnesAndStaySo)
{
    Event(L"User is logging in", kTime1);
    Event(L"New volume finished processing, VolumeType: 2", kTime3);
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Stamps(1700000000123, 1700000000123, 1700000010123, 1700000010123));

    // The filled response stamp is kept, so a late response no longer counts.
    Event(L"Response received from Manager (LOGIN)", kTime4);
    Event(L"Last volume loaded", kTime5);
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Stamps(1700000000123, 1700000000123, 1700000010123, 1700000020123));
}

TEST_F(QuillonMetricTest, UnreadableEventsReuseEarlierValuesAndEachLeavesItsPublisherOpen)
{
    const LONG64 publishersBefore = EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA);
    const LONG64 contextsBefore = EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT);
    Event(L"User is logging in", kTime1);
    Event(L"garbled", kTime2, EVT_SIM_UNFORMATTABLE);  // handled as the log-on text, at kTime2
    Event(L"All volumes finished processing", kTime3, EVT_SIM_NO_TIME);  // at kTime2 too
    WaitForDeliveries();
    EXPECT_EQ(EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA) - publishersBefore, 3);
    EXPECT_EQ(EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT), contextsBefore);
    const Texts lines = logger_->Texts();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), L"Quillon Agent Event: User is logging in"), 2);

    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Stamps(1700000005123, 1700000005123, 1700000005123, 1700000005123));
}

TEST_F(QuillonMetricTest, AllDoneWithoutTesserasSearchesTheServiceLogAndListsNone)
{
    service_.WriteLog(L"MOUNTED-READ;C:\\T\\old.vhdx;old\r\n");
    Event(L"User is logging in", kTime1);
    WaitForDeliveries();  // the cycle begins before the service writes
    service_.AppendLog(L"Manager status 200 response\r\n"
                       L"MOUNTED-READ;C:\\T\\a.vhdx;a1\r\n"
                       L"MOUNTED-READ;C:\\T\\b.vhdx;b1\r\n");
    Event(L"Last volume loaded", kTime2);
    WaitForDeliveries();
    EXPECT_TRUE(logger_->Has(LogLevel::Info, L"No Tessera find from event log, try to find it from quillon log"));
    EXPECT_TRUE(logger_->Has(LogLevel::Info, L"Find tessera id: b1"));
    for (const std::wstring& line : logger_->Texts()) {
        EXPECT_NE(line.rfind(L"TesseraId:", 0), 0u) << line;
    }

    // With Tesseras known, a later all-done searches nothing.
    logger_->Clear();
    Event(L"All volumes finished processing", kTime3);
    WaitForDeliveries();
    EXPECT_EQ(logger_->Texts(), Texts{L"Quillon Agent Event: All volumes finished processing"});

    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Joined(Stamps(1700000000123, 1700000000123, 1700000000123, 1700000010123),
                                {L"quillon|instances quillon|instances = s:true",
                                 L"quillon|instances|* a1 = s:C:\\T\\a.vhdx",
                                 L"quillon|instances|* b1 = s:C:\\T\\b.vhdx"}));
}

TEST_F(QuillonMetricTest, ManagerHostIsTheRegistryTextBeforeItsColon)
{
    const std::wstring readFailed = L"Failed to get Quillon Manager host information from registry.  Error code 0x";
    const std::wstring notFound = L"Not found the manager host in registry.";
    const Texts manager{L"quillon|mgr quillon|mgr = s:mgr.corp.example"};

    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_TRUE(logger_->Has(LogLevel::Warning, readFailed + L"80070002."));
    EXPECT_TRUE(logger_->Has(LogLevel::Info, notFound));

    service_.SetManager(L"mgr.corp.example:8443");
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), manager);
    EXPECT_EQ(logger_->Texts(), (Texts{L"Not got time stamps for quillon event.",
                                       L"Got quillon manager host value in registry: mgr.corp.example",
                                       L"No tessera mounted."}));

    const DWORD number = 1;
    service_.Registry().SetValue(ServiceInstall::kParametersKey, L"Manager1", REG_DWORD, &number, sizeof number);
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Texts{});
    EXPECT_TRUE(logger_->Has(LogLevel::Warning, readFailed + L"8007000d."));
    EXPECT_TRUE(logger_->Has(LogLevel::Info, notFound));

    // The host kept from before: the same host again is no news.
    service_.SetManager(L"mgr.corp.example");
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), manager);
    EXPECT_EQ(logger_->Texts(), (Texts{L"Not got time stamps for quillon event.", L"No tessera mounted."}));

    service_.SetManager(L":8443");
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Texts{});
    EXPECT_TRUE(logger_->Has(LogLevel::Info, notFound));

    service_.SetManager(L"");
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), Texts{});
    EXPECT_TRUE(logger_->Has(LogLevel::Warning, L"Quillon manager host value in registry is empty."));
    EXPECT_TRUE(logger_->Has(LogLevel::Info, notFound));
}

TEST_F(QuillonMetricTest, InstanceWritesGoOnAfterAFailureAndTheLastOneDecides)
{
    Event(L"Response 200 from Manager\r\nMOUNTED-READ;C:\\T\\a.vhdx;a1\r\nMOUNTED-READ;C:\\T\\b.vhdx;b1\r\n", kTime1);
    const Texts all{L"quillon|instances quillon|instances = s:true", L"quillon|instances|* a1 = s:C:\\T\\a.vhdx",
                    L"quillon|instances|* b1 = s:C:\\T\\b.vhdx"};

    sink_->Refuse(L"quillon|instances|*", E_FAIL, L"a1");
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    EXPECT_EQ(Written(), all);
    EXPECT_EQ(ErrorHeads(), Texts{L"Failed to collect metric 'quillon|instances|*'.  Error code 0x80004005"});

    sink_->Refuse(L"quillon|instances|*", E_ACCESSDENIED, L"b1");
    EXPECT_EQ(Collect(sink_.Get()), E_ACCESSDENIED);
    EXPECT_EQ(Written(), all);

    sink_->Refuse(L"quillon|instances", E_FAIL);
    EXPECT_EQ(Collect(sink_.Get()), E_FAIL);
    EXPECT_EQ(Written(), Texts{all[0]});
    EXPECT_EQ(ErrorHeads(), Texts{L"Failed to write metric flag 'quillon|instances'.  Error code 0x80004005"});
}

TEST_F(QuillonMetricTest, FailedStampAndManagerWritesAreOnlyLogged)
{
    service_.SetManager(L"mgr");
    Event(L"User is logging in", kTime1);
    Event(L"Response 200 from Manager\r\nMOUNTED-READ;C:\\T\\a.vhdx;a1\r\n", kTime2);

    sink_->Refuse(L"quillon|logon_response_timestamp", E_FAIL);
    EXPECT_EQ(Collect(sink_.Get()), S_OK);
    const Texts stamps = Stamps(1700000000123, 1700000005123, 0, 0);
    EXPECT_EQ(Written(), (Texts{stamps[0], stamps[1], L"quillon|mgr quillon|mgr = s:mgr",
                                L"quillon|instances quillon|instances = s:true",
                                L"quillon|instances|* a1 = s:C:\\T\\a.vhdx"}));
    EXPECT_EQ(ErrorHeads(), (Texts{L"Failed to collect metric 'quillon|logon_response_timestamp'.  Error code 0x80004005",
                                   L"Failed to write attach time metrics.  Error code 0x80004005"}));

    // No sink at all: every write fails the ordinary way, nothing crashes.
    EXPECT_EQ(Collect(nullptr), E_POINTER);
    EXPECT_EQ(ErrorHeads(), (Texts{L"Failed to collect metric 'quillon|logon_timestamp'.  Error code 0x80004003",
                                   L"Failed to write attach time metrics.  Error code 0x80004003",
                                   L"Failed to collect metric 'quillon|mgr'.  Error code 0x80004003",
                                   L"Failed to write metric flag 'quillon|instances'.  Error code 0x80004003"}));
}

}  // namespace
}  // namespace zeph
