// The layering metric: its event classification and registry reads, and the metric on
// the simulated event log. Inside the provider it runs in tests/host (a recorded run).
#include "config_element.h"
#include "layering/quillon_event.h"
#include "layering/quillon_metric.h"
#include "layering/registry_string.h"
#include "layering_env.h"
#include "provider/metric_factory.h"
#include "support/host_logger.h"
#include "support/host_value_sink.h"
#include "simulated_event_log.h"
#include "win/com_strings.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;
using Texts = std::vector<std::wstring>;

TEST(ClassifyEventMessageTest, FirstMatchingRuleDecidesAndPrefixesStandAtTheStart)
{
    using Kind = QuillonEventKind;
    const std::pair<const wchar_t*, Kind> cases[] = {
        {L"User is logging in: CORP\\alice", Kind::LogOn},
        {L" User is logging in", Kind::Other},
        {L"user is logging in", Kind::Other},
        {L"User is logging off", Kind::LogOff},
        {L"User is logging out (session 2)", Kind::LogOff},
        {L"Response 200 from Manager\r\nMOUNTED-READ;C:\\T\\a.vhdx;a1\r\n", Kind::LogOnResponse},
        {L"Response received from Manager for LOGIN request", Kind::LogOnResponse},
        {L"Response received from Manager for LOGOFF request", Kind::Other},
        {L"Last volume loaded", Kind::AllDone},
        {L"All volumes finished processing", Kind::AllDone},
        {L"New volume event (mounted): \\\\?\\Volume{1} (VolumeType 2)", Kind::VolumesReady},
        {L"New volume event (mounted): \\\\?\\Volume{1} (VolumeType 1)", Kind::Other},
        {L"New volume finished processing, VolumeType: 2", Kind::VolumesReady},
        {L"New volume finished processing, VolumeType: 1", Kind::Other},
        {L"User is logging in after Response 200 from Manager", Kind::LogOn},  // the log-on rule comes first
        {L"", Kind::Other},
    };
    for (const auto& [message, kind] : cases) {
        EXPECT_EQ(ClassifyEventMessage(message), kind) << message;
    }
}

TEST(ReadRegistryStringTest, AcceptsOnlyTerminatedStringsOfEvenLength)
{
    constexpr wchar_t kKey[] = L"SOFTWARE\\ZephLayering";
    RedirectedKey registry(HKEY_LOCAL_MACHINE);
    const DWORD number = 42;
    registry.SetValue(kKey, L"Number", REG_DWORD, &number, sizeof number);
    registry.SetValue(kKey, L"Odd", REG_SZ, L"ab", 3);
    // The source goes on with a non-zero unit: the registry would otherwise add the terminator.
    registry.SetValue(kKey, L"Unterminated", REG_SZ, L"abcd", 6);
    registry.SetValue(kKey, L"NoData", REG_SZ, L"", 0);
    registry.SetString(kKey, L"Plain", L"host:1234");
    registry.SetString(kKey, L"Expand", L"%SystemRoot%\\host", REG_EXPAND_SZ);
    registry.SetValue(kKey, L"Embedded", REG_SZ, L"ab\0cd", 12);
    const HRESULT badData = static_cast<HRESULT>(0x8007000D), notFound = static_cast<HRESULT>(0x80070002);
    const struct {
        const wchar_t* key;
        const wchar_t* name;
        HRESULT result;
        const wchar_t* text;  // what out holds afterwards
    } cases[] = {
        {kKey, L"Number", badData, L"untouched"},       {kKey, L"Odd", badData, L"untouched"},
        {kKey, L"Unterminated", badData, L"untouched"}, {kKey, L"NoData", badData, L"untouched"},
        {kKey, L"Missing", notFound, L"untouched"},     {kKey, L"Plain", S_OK, L"host:1234"},
        {kKey, L"Expand", S_OK, L"%SystemRoot%\\host"}, {kKey, L"Embedded", S_OK, L"ab"},
    };
    for (const auto& c : cases) {
        std::wstring out = L"untouched";
        EXPECT_EQ(ReadRegistryString(HKEY_LOCAL_MACHINE, c.key, c.name, out), c.result) << c.name;
        EXPECT_EQ(out, c.text) << c.name;
    }
}

// Creation times 5 s apart, each 0.4567 ms past a whole millisecond so that the
// conversion must truncate; the comments give milliseconds since 1970.
constexpr ULONGLONG kTime1 = 133444736001234567ull;  // 1700000000123
constexpr ULONGLONG kTime2 = 133444736051234567ull;  // 1700000005123
constexpr ULONGLONG kTime3 = 133444736101234567ull;  // 1700000010123
constexpr ULONGLONG kTime4 = 133444736151234567ull;  // 1700000015123
constexpr ULONGLONG kTime5 = 133444736201234567ull;  // 1700000020123
constexpr wchar_t kQuery[] = L"*[System[Provider[@Name='drovesvc']]]";

// "key name = u:number" for VT_UI8, "key name = s:text" for VT_BSTR.
Texts Describe(const std::vector<SinkWrite>& writes)
{
    Texts lines;
    for (const SinkWrite& w : writes) {
        lines.push_back(w.key + L" " + w.name + L" = " +
                        (w.type == VT_UI8 ? L"u:" + std::to_wstring(w.number) : L"s:" + w.text));
    }
    return lines;
}

Texts Stamps(ULONGLONG logon, ULONGLONG response, ULONGLONG volumesReady, ULONGLONG allDone, Texts more = {})
{
    Texts stamps = {L"quillon|logon_timestamp quillon = u:" + std::to_wstring(logon),
                    L"quillon|logon_response_timestamp quillon = u:" + std::to_wstring(response),
                    L"quillon|volumes_ready_timestamp quillon = u:" + std::to_wstring(volumesReady),
                    L"quillon|all_done_timestamp quillon = u:" + std::to_wstring(allDone)};
    stamps.insert(stamps.end(), more.begin(), more.end());
    return stamps;
}

const std::wstring kFlag = L"quillon|instances quillon|instances = s:true";

class QuillonMetricTest : public ::testing::Test {
protected:
    static constexpr wchar_t kChannel[] = L"ZephLayering";
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
        WriteEvent(kChannel, L"drovesvc", 3, time, message, flags);
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
    Texts Reported()  // a query that succeeds, and what it wrote
    {
        EXPECT_EQ(Collect(sink_.Get()), S_OK);
        return Written();
    }
    bool Logged(const std::wstring& info) const { return logger_->Has(LogLevel::Info, info); }
    // Error lines up to and including the code (the system's text varies).
    Texts ErrorHeads() const
    {
        Texts heads;
        for (const LogLine& line : logger_->Lines()) {
            const size_t code = line.text.find(L"  Error code 0x");
            if (line.level == LogLevel::Error) {
                heads.push_back(code == std::wstring::npos ? line.text : line.text.substr(0, code + 23));
            }
        }
        return heads;
    }

    ComPtr<IXMLDOMElement> config_ = MakeMetricConfig(kChannel, kQuery);  // before the registry is redirected
    ServiceInstall service_;
    ComPtr<HostLogger> logger_ = Adopt(new HostLogger(0x7));
    ComPtr<HostContext> context_ = Adopt(new HostContext());
    ComPtr<HostValueSink> sink_ = Adopt(new HostValueSink());
    std::shared_ptr<CQuillonMetric> metric_;
};

TEST_F(QuillonMetricTest, LogOnSequenceGivesFourStampsAndASecondLogOnKeepsTheFirstResponse)
{
    Event(L"User is logging in", kTime1);
    Event(L"Response 200 from Manager", kTime2);
    Event(L"Response received from Manager for LOGIN", kTime3);
    Event(L"New volume event (mounted): V1 (VolumeType 2)", kTime3);
    Event(L"All volumes finished processing", kTime4);
    EXPECT_EQ(Reported(), Stamps(1700000000123, 1700000005123, 1700000010123, 1700000015123));

    Event(L"User is logging in", kTime5);
    EXPECT_EQ(Reported(), Stamps(1700000020123, 1700000005123, 1700000010123, 1700000015123));
}

TEST_F(QuillonMetricTest, LogOffClearsTheStampsButKeepsTheTesseras)
{
    Event(L"User is logging in", kTime1);
    Event(L"Response 200 from Manager\r\nMOUNTED-READ;C:\\T\\a.vhdx;a1\r\n", kTime2);
    Event(L"User is logging off", kTime3);
    WaitForDeliveries();
    EXPECT_TRUE(Logged(L"Try to find Tessera from event log"));
    EXPECT_TRUE(Logged(L"Find tessera path: C:\\T\\a.vhdx"));
    EXPECT_EQ(Reported(), (Texts{kFlag, L"quillon|instances|* a1 = s:C:\\T\\a.vhdx"}));
    EXPECT_TRUE(Logged(L"Not got time stamps for quillon event."));

    // A response with no log-on before it sets no stamp, yet its Tesseras count; its text is no format.
    Event(L"Response 200 from Manager %s%n\r\nMOUNTED-READ;C:\\T\\%s%d.vhdx;%n%x\r\n", kTime4);
    WaitForDeliveries();
    EXPECT_TRUE(Logged(L"Find tessera path: C:\\T\\%s%d.vhdx"));
    EXPECT_TRUE(Logged(L"Find tessera id: %n%x"));
    EXPECT_EQ(Reported(), (Texts{kFlag, L"quillon|instances|* a1 = s:C:\\T\\a.vhdx",
                                 L"quillon|instances|* %n%x = s:C:\\T\\%s%d.vhdx"}));
    EXPECT_TRUE(Logged(L"Not got time stamps for quillon event."));

    // The next log-on starts a new list.
    Event(L"User is logging in", kTime5);
    EXPECT_EQ(Reported(), Stamps(1700000020123, 1700000020123, 1700000020123, 1700000020123));
    EXPECT_TRUE(Logged(L"No tessera mounted."));
}

TEST_F(QuillonMetricTest, MissingStampsAreFilledFromEarlierOnesAndStaySo)
{
    Event(L"User is logging in", kTime1);
    Event(L"New volume finished processing, VolumeType: 2", kTime3);
    EXPECT_EQ(Reported(), Stamps(1700000000123, 1700000000123, 1700000010123, 1700000010123));

    // The filled response stamp is kept, so a late response no longer counts.
    Event(L"Response received from Manager (LOGIN)", kTime4);
    Event(L"Last volume loaded", kTime5);
    EXPECT_EQ(Reported(), Stamps(1700000000123, 1700000000123, 1700000010123, 1700000020123));
}

TEST_F(QuillonMetricTest, UnreadableEventsReuseEarlierValuesAndEachLeavesItsPublisherOpen)
{
    const LONG64 publishersBefore = EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA);
    const LONG64 contextsBefore = EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT);
    Event(L"User is logging in", kTime1);
    Event(L"garbled", kTime2, EVT_SIM_UNFORMATTABLE);                    // the log-on text again, at kTime2
    Event(L"All volumes finished processing", kTime3, EVT_SIM_NO_TIME);  // at kTime2 too
    WaitForDeliveries();
    EXPECT_EQ(EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA) - publishersBefore, 3);
    EXPECT_EQ(EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT), contextsBefore);
    const Texts lines = logger_->Texts();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), L"Quillon Agent Event: User is logging in"), 2);
    EXPECT_EQ(Reported(), Stamps(1700000005123, 1700000005123, 1700000005123, 1700000005123));
}

TEST_F(QuillonMetricTest, AllDoneWithoutTesserasSearchesTheServiceLog)
{
    service_.WriteLog(L"MOUNTED-READ;C:\\T\\old.vhdx;old\r\n");
    Event(L"User is logging in", kTime1);
    WaitForDeliveries();  // the cycle begins before the service writes
    service_.AppendLog(
        L"Manager status 200 response\r\n"
        L"MOUNTED-READ;C:\\T\\a.vhdx;a1\r\n"
        L"MOUNTED-READ;C:\\T\\b.vhdx;b1\r\n");
    Event(L"Last volume loaded", kTime2);
    WaitForDeliveries();
    EXPECT_TRUE(Logged(L"No Tessera find from event log, try to find it from quillon log"));
    EXPECT_TRUE(Logged(L"Find tessera id: b1"));
    for (const std::wstring& line : logger_->Texts()) {
        EXPECT_FALSE(line.starts_with(L"TesseraId:")) << line;
    }

    // With Tesseras known, a later all-done searches nothing.
    logger_->Clear();
    Event(L"All volumes finished processing", kTime3);
    WaitForDeliveries();
    EXPECT_EQ(logger_->Texts(), Texts{L"Quillon Agent Event: All volumes finished processing"});
    EXPECT_EQ(Reported(), Stamps(1700000000123, 1700000000123, 1700000000123, 1700000010123,
                                 {kFlag, L"quillon|instances|* a1 = s:C:\\T\\a.vhdx",
                                  L"quillon|instances|* b1 = s:C:\\T\\b.vhdx"}));
}

TEST_F(QuillonMetricTest, ManagerHostIsTheRegistryTextBeforeItsColon)
{
    const std::wstring readFailed = L"Failed to get Quillon Manager host information from registry.  Error code 0x";
    const std::wstring notFound = L"Not found the manager host in registry.";
    const std::wstring got = L"Got quillon manager host value in registry: ";
    const Texts manager{L"quillon|mgr quillon|mgr = s:mgr.corp.example"};
    const Texts quiet{L"Not got time stamps for quillon event.", L"No tessera mounted."};
    const DWORD number = 1;
    const std::wstring longHost(20000, L'h');
    const struct {
        std::function<void()> set;
        Texts written;
        std::wstring warning;  // empty: the whole log is given instead
        Texts log;
    } rows[] = {
        {[] {}, {}, readFailed + L"80070002.", {}},
        {[&] { service_.SetManager(L"mgr.corp.example:8443"); },
         manager,
         L"",
         {quiet[0], got + L"mgr.corp.example", quiet[1]}},
        {[&] { service_.Registry().SetValue(ServiceInstall::kParametersKey, L"Manager1", REG_DWORD, &number, 4); },
         {},
         readFailed + L"8007000d.",
         {}},
        {[&] { service_.SetManager(L"mgr.corp.example"); }, manager, L"", quiet},  // the same host again is no news
        {[&] { service_.SetManager(L":8443"); }, {}, L"", {quiet[0], got, notFound, quiet[1]}},
        {[&] { service_.SetManager(L""); }, {}, L"Quillon manager host value in registry is empty.", {}},
        {[&] { service_.SetManager(longHost + L":1"); },
         {L"quillon|mgr quillon|mgr = s:" + longHost},
         L"",
         {quiet[0], got + longHost, quiet[1]}},
    };
    for (size_t i = 0; i < std::size(rows); ++i) {
        SCOPED_TRACE(i);
        rows[i].set();
        EXPECT_EQ(Reported(), rows[i].written);
        if (rows[i].warning.empty()) {
            EXPECT_EQ(logger_->Texts(), rows[i].log);
        } else {
            EXPECT_TRUE(logger_->Has(LogLevel::Warning, rows[i].warning));
            EXPECT_TRUE(Logged(notFound));
        }
    }
}

TEST_F(QuillonMetricTest, InstanceWritesGoOnAfterAFailureAndTheLastOneDecides)
{
    Event(L"Response 200 from Manager\r\nMOUNTED-READ;C:\\T\\a.vhdx;a1\r\nMOUNTED-READ;C:\\T\\b.vhdx;b1\r\n", kTime1);
    const Texts all{kFlag, L"quillon|instances|* a1 = s:C:\\T\\a.vhdx", L"quillon|instances|* b1 = s:C:\\T\\b.vhdx"};

    sink_->Refuse(L"quillon|instances|*", E_FAIL, L"a1");
    EXPECT_EQ(Reported(), all);
    EXPECT_EQ(ErrorHeads(), Texts{L"Failed to collect metric 'quillon|instances|*'.  Error code 0x80004005"});

    sink_->Refuse(L"quillon|instances|*", E_ACCESSDENIED, L"b1");
    EXPECT_EQ(Collect(sink_.Get()), E_ACCESSDENIED);
    EXPECT_EQ(Written(), all);

    sink_->Refuse(L"quillon|instances", E_FAIL);
    EXPECT_EQ(Collect(sink_.Get()), E_FAIL);
    EXPECT_EQ(Written(), Texts{kFlag});
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
    EXPECT_EQ(Written(), (Texts{stamps[0], stamps[1], L"quillon|mgr quillon|mgr = s:mgr", kFlag,
                                L"quillon|instances|* a1 = s:C:\\T\\a.vhdx"}));
    EXPECT_EQ(ErrorHeads(),
              (Texts{L"Failed to collect metric 'quillon|logon_response_timestamp'.  Error code 0x80004005",
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
