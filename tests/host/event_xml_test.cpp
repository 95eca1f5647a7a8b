// Windows event XML as users export it: the file shapes, the event schema's parts, exact
// insertion strings, malformed input with its position; and a replay through zeph-host
// whose crash details are compared with texts written out here.
#include "event_xml.h"
#include "host_process.h"

#include <gtest/gtest.h>

#include <regex>

namespace zeph::test {
namespace {

using host::EventFile;
using host::ParseEventText;
using Strings = std::vector<std::wstring>;

constexpr wchar_t kNs[] = L"xmlns='http://schemas.microsoft.com/win/2004/08/events/event'";

std::wstring System(const std::wstring& publisher, const std::wstring& id = L"1000",
                    const std::wstring& time = L"2024-05-14T09:12:03.4471920Z", const std::wstring& channel = L"Application")
{
    return L"<System><Provider Name='" + publisher + L"'/><EventID Qualifiers='0'>" + id +
           L"</EventID><TimeCreated SystemTime='" + time + L"'/><Channel>" + channel + L"</Channel></System>";
}

std::wstring Event(const std::wstring& body, const std::wstring& system = System(L"Application Error"))
{
    return std::wstring(L"<Event ") + kNs + L">" + system + body + L"</Event>";
}

class ComInit {
public:
    ComInit() { ::CoInitializeEx(nullptr, COINIT_MULTITHREADED); }
    ~ComInit() { ::CoUninitialize(); }
};

TEST(EventXml, ShapesAndParts)
{
    const ComInit com;
    const std::wstring one = Event(L"<EventData><Data>a</Data></EventData>");
    const std::wstring big(1 << 20, L'x');
    struct Case {
        std::wstring text;
        size_t events;
        Strings insertions;  // of the last event
    };
    const Case cases[] = {
        {one, 1, {L"a"}},
        {L"<?xml version='1.0' encoding='UTF-8'?>\r\n<Events>" + one + L"<!-- saved -->" + one + L"</Events>", 2, {L"a"}},
        {one + L"\n" + one + L"\n" + one, 3, {L"a"}},                                  // wevtutil: no root
        {L"evtxexport 20181227\n\n" + one + L"\n\n" + one + L"\n", 2, {L"a"}},         // banner line
        {Event(L"<EventData><Data Name='AppName'>ledger.exe</Data><Data/><Data></Data>"
               L"<Data> padded  </Data><Binary>00</Binary></EventData>"),
         1, {L"ledger.exe", L"", L"", L" padded  "}},
        {Event(L"<EventData><Data>&lt;a &amp; b&gt; &#x41;</Data><Data><![CDATA[<raw> & ]]>x</Data>"
               L"<Data>C:\\Users\\jörg.müller\\größe.exe</Data><Data>line1\nline2</Data></EventData>"),
         1, {L"<a & b> A", L"<raw> & x", L"C:\\Users\\jörg.müller\\größe.exe", L"line1\nline2"}},
        {Event(L"<UserData><Custom xmlns='urn:x'><One>1</One><Two/></Custom></UserData>"), 1, {L"1", L""}},
        {L"<e:Event xmlns:e='http://schemas.microsoft.com/win/2004/08/events/event'><e:System>"
         L"<e:Provider Name='P'/><e:EventID>7</e:EventID><e:TimeCreated SystemTime='2024-05-14T09:12:03Z'/>"
         L"<e:Channel>System</e:Channel></e:System><e:EventData><e:Data>p</e:Data></e:EventData></e:Event>",
         1, {L"p"}},
        {Event(L"<RenderingInfo Culture='en-US'><Message>" + big + L"</Message></RenderingInfo>"), 1, {}},
    };
    for (const Case& c : cases) {
        const EventFile file = ParseEventText(c.text);
        ASSERT_FALSE(file.fault) << testing::PrintToString(*file.fault);
        ASSERT_EQ(file.events.size(), c.events) << testing::PrintToString(c.text.substr(0, 200));
        EXPECT_EQ(file.events.back().insertions, c.insertions) << testing::PrintToString(c.text.substr(0, 200));
    }

    // The System parts, time to 100 ns: seven fraction digits as written, nine (evtxexport) truncated.
    const EventFile parts = ParseEventText(
        Event(L"<RenderingInfo><Message>Rendered\r\ntext </Message></RenderingInfo>",
              System(L"Application Error", L" 1000 ", L"2023-11-14T22:13:20.123456789Z", L"Application")) +
        Event(L"", System(L"Service Control Manager", L"65535", L"2023-11-14T22:13:20.1234567Z", L"System")));
    ASSERT_EQ(parts.events.size(), 2u);
    EXPECT_EQ(parts.events[0].publisher, L"Application Error");
    EXPECT_EQ(parts.events[0].channel, L"Application");
    EXPECT_EQ(parts.events[0].id, 1000);
    EXPECT_EQ(parts.events[0].timeCreated, 133444736001234567ull);
    EXPECT_EQ(parts.events[0].renderedMessage, std::optional<std::wstring>(L"Rendered\r\ntext "));  // Windows line ends
    EXPECT_EQ(parts.events[1].id, 65535);
    EXPECT_EQ(parts.events[1].timeCreated, 133444736001234567ull);
    EXPECT_FALSE(parts.events[1].renderedMessage);
    EXPECT_EQ(big, ParseEventText(cases[8].text).events[0].renderedMessage.value_or(L""));
}

TEST(EventXml, MalformedFilesNameTheEventAndItsPosition)
{
    const ComInit com;
    const std::wstring good = Event(L"");
    struct Case {
        std::wstring text;
        size_t before;  // well-formed events read before the fault
        std::wstring fault;
    };
    const Case cases[] = {
        {good + L"\n" + Event(L"<EventData><Data>a</Dat></EventData>"), 1, L"event 2: not well-formed XML at line 2, column "},
        {good + L"\n\n  <Event " + kNs + L"><System>", 1, L"event 2 (line 3, column 3): <Event> is not closed"},
        {good + L"\n" + Event(L"", System(L"P", L"70000")), 1,
         L"event 2 (line 2, column 1): System/EventID must be a whole number from 0 to 65535, not '70000'"},
        {Event(L"", System(L"P", L"1", L"2024-05-14 09:12")), 0, L"event 1 (line 1, column 1): System/TimeCreated/@SystemTime"},
        {Event(L"", L"<System><Provider Name='P'/><EventID>1</EventID><TimeCreated SystemTime='2024-05-14T09:12:03Z'/></System>"),
         0, L"event 1 (line 1, column 1): <Event> has no System/Channel"},
        {good + L"stray", 1, L"after event 1 (line 1, column "},
        {L"<Log>" + good + L"</Log>", 0, L"before the first event (line 1, column 1): expected <Event> or <Events>, found <Log>"},
        {L"\n  \n", 0, L"before the first event (line 3, column 1): the file holds no <Event>"},
    };
    for (const Case& c : cases) {
        const EventFile file = ParseEventText(c.text);
        EXPECT_EQ(file.events.size(), c.before) << testing::PrintToString(c.fault);
        ASSERT_TRUE(file.fault) << testing::PrintToString(c.fault);
        EXPECT_TRUE(file.fault->starts_with(c.fault)) << testing::PrintToString(*file.fault);
    }
}

TEST(EventXml, DecodesByByteOrderMark)
{
    const std::wstring expected = L"<Event>ä</Event>";
    EXPECT_EQ(host::DecodeText("\xEF\xBB\xBF<Event>\xC3\xA4</Event>"), expected);
    EXPECT_EQ(host::DecodeText("<Event>\xC3\xA4</Event>"), expected);
    std::string utf16le("\xFF\xFE", 2), bare;
    for (wchar_t c : expected) bare += {static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
    EXPECT_EQ(host::DecodeText(utf16le + bare), expected);
    EXPECT_EQ(host::DecodeText(bare), expected);  // no mark, as PowerShell redirections may leave it
}

// zeph-host --replay: real shapes in, crash details out, exactly as the provider reports them.
class ReplayRun : public ::testing::Test {
protected:
    HostRun Replay(const std::string& events)
    {
        const std::wstring file = folder_.WriteFile(L"events.xml", events);
        return RunZephHost({L"--config", config_, L"--dll", BinFolder() + L"zeph_eventlog.dll", L"--replay", file,
                            L"--once"});
    }
    // The value column of the table's crash detail lines.
    static Strings Details(const HostRun& run)
    {
        Strings details;
        const std::wregex line(LR"(  appcrash\|crash_details\|\*  \d+ +(.*))");
        std::wsmatch match;
        for (const std::wstring& text : run.OutLines()) {
            if (std::regex_match(text, match, line)) details.push_back(match[1]);
        }
        return details;
    }

    TempFolder folder_;
    std::wstring config_ = folder_.WriteFile(L"host.xml", R"(<zeph-host>
  <metric name="eventlog|eventlog_appcrash">
    <channel>Application</channel>
    <query>*[System[Provider[@Name='Application Error']]]</query>
  </metric>
</zeph-host>)");
    std::wstring host_ = [] {
        wchar_t name[MAX_COMPUTERNAME_LENGTH + 2] = {};
        DWORD size = MAX_COMPUTERNAME_LENGTH + 2;
        EXPECT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, name, &size));
        return L"<br />Host Name: " + std::wstring(name);
    }();
};

constexpr char kCrash64[] = R"(<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event">
  <System>
    <Provider Name="Application Error"/>
    <EventID Qualifiers="0">1000</EventID>
    <TimeCreated SystemTime="2024-05-14T09:12:03.4471920Z"/>
    <Channel>Application</Channel>
  </System>
  <EventData>
    <Data Name="AppName">ledger.exe</Data><Data Name="AppVersion">4.2.0.118</Data><Data>65f1c2a0</Data>
    <Data>ntdll.dll</Data><Data>10.0.19041.3636</Data><Data>b5ced1c6</Data><Data>c0000374</Data>
    <Data>00000000000ff6a9</Data><Data>1cf4</Data><Data>01daa5e0b2c84f3d</Data>
    <Data>C:\Program Files\Ledger\ledger.exe</Data><Data>C:\Windows\SYSTEM32\ntdll.dll</Data>
    <Data>a3b1f0d2-6c4e-4b8a-9e71-5d20c8f4e613</Data><Data></Data><Data/>
  </EventData>
</Event>
)";

TEST_F(ReplayRun, CrashDetailsAsTheProviderReportsThem)
{
    const std::string events = std::string("evtxexport 20181227\n\n") + kCrash64 +
        R"(<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event"><System><Provider Name="Application Error"/><EventID>1000</EventID><TimeCreated SystemTime="2024-05-14T09:27:45.901638200Z"/><Channel>Application</Channel></System><EventData><Data>größe.exe</Data><Data>3.8.1.0</Data><Data>5c1a7f0e</Data><Data>e32.dll</Data><Data>3.8.1.12</Data><Data>5c1a7ee9</Data><Data>c0000005</Data><Data>0002b1c4</Data><Data>2e40</Data><Data>01daa5e1f4a0c917</Data><Data>C:\Program Files (x86)\Größe\größe.exe</Data><Data>C:\Program Files (x86)\Größe\e32.dll</Data><Data>5e0c4a8b</Data><Data>Contoso.Größe_3.8.1.0_x86__8wekyb3d8bbwe</Data><Data>App</Data></EventData></Event>
<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event"><System><Provider Name="Application Error"/><EventID>1000</EventID><TimeCreated SystemTime="2024-05-14T09:30:00Z"/><Channel>System</Channel></System></Event>
<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event"><System><Provider Name="Application Error"/><EventID>1000</EventID><TimeCreated SystemTime="2024-05-14T09:31:00Z"/><Channel>Application</Channel></System><EventData><Data>old.exe</Data></EventData><RenderingInfo Culture="en-US"><Message>Faulting application name: old.exe</Message></RenderingInfo></Event>
)";
    const HostRun run = Replay(events);
    EXPECT_EQ(run.exitCode, 0u) << testing::PrintToString(run.err);
    EXPECT_EQ(Details(run), (Strings{
        L"Faulting application name: ledger.exe, version: 4.2.0.118, time stamp: 0x65f1c2a0<br />"
        L"Faulting module name: ntdll.dll, version: 10.0.19041.3636, time stamp: 0xb5ced1c6<br />"
        L"Exception code: 0xc0000374<br />Fault offset: 0x00000000000ff6a9<br />Faulting process id: 0x1cf4<br />"
        L"Faulting application start time: 0x01daa5e0b2c84f3d<br />Faulting application path: C:\\Program Files\\Ledger\\ledger.exe<br />"
        L"Faulting module path: C:\\Windows\\SYSTEM32\\ntdll.dll<br />Report Id: a3b1f0d2-6c4e-4b8a-9e71-5d20c8f4e613<br />"
        L"Faulting package full name: <br />Faulting package-relative application ID: "
        L"<br />Crash Time: 2024-05-14 09:12:03" + host_,
        L"Faulting application name: größe.exe, version: 3.8.1.0, time stamp: 0x5c1a7f0e<br />"
        L"Faulting module name: e32.dll, version: 3.8.1.12, time stamp: 0x5c1a7ee9<br />"
        L"Exception code: 0xc0000005<br />Fault offset: 0x0002b1c4<br />Faulting process id: 0x2e40<br />"
        L"Faulting application start time: 0x01daa5e1f4a0c917<br />Faulting application path: C:\\Program Files (x86)\\Größe\\größe.exe<br />"
        L"Faulting module path: C:\\Program Files (x86)\\Größe\\e32.dll<br />Report Id: 5e0c4a8b<br />"
        L"Faulting package full name: Contoso.Größe_3.8.1.0_x86__8wekyb3d8bbwe<br />Faulting package-relative application ID: App"
        L"<br />Crash Time: 2024-05-14 09:27:45" + host_,
        L"Faulting application name: old.exe<br />Crash Time: 2024-05-14 09:31:00" + host_,
    }));
    EXPECT_NE(run.err.find(L"4 event(s) read, 3 written, 1 skipped"), std::wstring::npos) << testing::PrintToString(run.err);
}

TEST_F(ReplayRun, MalformedFileKeepsWhatWasReplayed)
{
    const HostRun run = Replay(std::string(kCrash64) + "<Event><System><Provider Name=\"x\"/></Sys></Event>\n");
    EXPECT_EQ(run.exitCode, 8u);
    ASSERT_EQ(Details(run).size(), 1u);
    EXPECT_TRUE(Details(run)[0].starts_with(L"Faulting application name: ledger.exe,"));
    const Strings err = run.ErrLines();
    ASSERT_FALSE(err.empty());
    EXPECT_TRUE(std::regex_search(err.back(),
                                 std::wregex(LR"(zeph-host: the event file '.*events\.xml' is malformed: event 2: )"
                                             LR"(not well-formed XML at line 16, column \d+: .*; the 1 event\(s\) before it were replayed)")))
        << testing::PrintToString(err);
}

}  // namespace
}  // namespace zeph::test
