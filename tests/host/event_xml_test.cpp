// Windows event XML as users export it: the file shapes, the event schema's parts, exact
// insertion strings, byte-order marks, refusals with their positions; and a replay through zeph-host
// whose crash details are compared with texts written out here.
#include "event_xml.h"
#include "host_process.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <regex>

namespace zeph::test {
namespace {

using host::EventFile;
using host::ParseEventText;
using Strings = std::vector<std::wstring>;

constexpr wchar_t kNs[] = L"xmlns='http://schemas.microsoft.com/win/2004/08/events/event'";

std::wstring Event(const std::wstring& body)
{
    return std::wstring(L"<Event ") + kNs +
           L"><System><Provider Name='Application Error'/><EventID>1000</EventID>"
           L"<TimeCreated SystemTime='2024-05-14T09:12:03.4471920Z'/><Channel>Application</Channel></System>" +
           body + L"</Event>";
}

// The replay below has evtxexport's shape and the event's parts; here the other shapes.
TEST(EventXml, ShapesAndInsertionStrings)
{
    const std::wstring one = Event(
        L"<EventData><Data>&lt;a &amp; b&gt; &#x41;</Data><Data><![CDATA[<raw> & ]]>x</Data>"
        L"<Data> b  </Data></EventData>");
    // wevtutil writes no root; entities, CDATA and blanks are kept as written.
    for (const std::wstring& text : {one + L"\n" + one, L"<Events>" + one + L"<!-- saved -->" + one + L"</Events>"}) {
        const EventFile file = ParseEventText(text);
        EXPECT_FALSE(file.fault);
        ASSERT_EQ(file.events.size(), 2u) << testing::PrintToString(text);
        EXPECT_EQ(file.events[1].insertions, (Strings{L"<a & b> A", L"<raw> & x", L" b  "}));
    }
}

// Reading stops at the first fault: the events before it are kept, and the fault names the
// event (or the gap between events) and where it is, also thousands of events into a file.
TEST(EventXml, RefusalsNameTheEventAndItsPosition)
{
    const std::wstring good = Event(L"");
    const auto with = [&](const wchar_t* from, const wchar_t* to) {
        return std::wstring(good).replace(good.find(from), std::wcslen(from), to);
    };
    std::wstring many;
    for (int i = 0; i < 3000; ++i) {
        many += good + L"\n";
    }
    const std::wstring mismatched = Event(L"<EventData><Data>a</Dat></EventData>");
    std::wstring nested;  // an element 258 levels deep, where the DOM takes 257
    for (int i = 0; i < 257 * 2; ++i) {
        nested += i < 257 ? L"<x>" : L"</x>";
    }
    const std::wstring deep = Event(nested);
    const struct {
        std::wstring text;
        size_t before;       // events read before the fault
        std::wstring fault;  // a final '*': the parser's column and reason follow
    } cases[] = {
        {good + L"\n" + mismatched, 1,
         L"event 2: not well-formed XML at line 2, column " + std::to_wstring(mismatched.find(L"</Dat>") + 1) +
             L": Opening and ending tag mismatch: Data line 2 and Dat"},
        {deep, 0,
         L"event 1: nested too deeply at line 1, column " + std::to_wstring(deep.find(nested) + 256 * 3 + 1) +
             L": an element 258 levels deep, where the XML parser takes 257"},
        {good + L"\n\n  <Event " + kNs + L"><System>", 1,
         L"event 2 (line 3, column 3): <Event> is not closed before the end of the file"},
        {good + L"\n" + with(L">1000<", L">70000<"), 1,
         L"event 2 (line 2, column 1): System/EventID must be a whole number from 0 to 65535, not '70000'"},
        {with(L"<Channel>Application</Channel>", L""), 0, L"event 1 (line 1, column 1): <Event> has no System/Channel"},
        {good + L" stray", 1, L"after event 1 (line 1, column 241): text outside an <Event> element"},
        {L"<Log>" + good + L"</Log>", 0,
         L"before the first event (line 1, column 1): expected <Event> or <Events>, found <Log>"},
        {L"\n  \n", 0, L"before the first event (line 3, column 1): the file holds no <Event>"},
        {L"<Events>\n" + good, 1,
         L"after event 1 (line 2, column 240): <Events> is not closed before the end of the file"},
        {good + L"</Events>", 1, L"after event 1 (line 1, column 240): </Events> closes no element"},
        // Found by the fuzzer: Wine's SAX reader overran its stack quoting this namespace in a warning.
        {L"<Events xmlns=\"x" + std::wstring(1500, L' ') + L"\">" + good + L"</Events>", 0,
         L"line 1, column 216: a name or a namespace value longer than the XML reader takes"},
        {many + with(L"Application Error", L""), 3000,
         L"event 3001 (line 3001, column 1): <Event> has no System/Provider/@Name"},
    };
    for (const auto& c : cases) {
        const EventFile file = ParseEventText(c.text);
        EXPECT_EQ(file.events.size(), c.before) << testing::PrintToString(c.fault);
        const std::wstring fault = file.fault.value_or(L"none");
        EXPECT_TRUE(c.fault.ends_with(L'*') ? fault.starts_with(c.fault.substr(0, c.fault.size() - 1))
                                            : fault == c.fault)
            << testing::PrintToString(fault);
    }
    // A message past the 10,000,000 bytes MSXML takes in one text node from a string.
    const std::wstring large(12000000, L'x');
    const EventFile file = ParseEventText(Event(L"<RenderingInfo><Message>" + large + L"</Message></RenderingInfo>"));
    ASSERT_EQ(file.events.size(), 1u);
    EXPECT_EQ(file.events[0].renderedMessage, large);
}

TEST(EventXml, DecodesByByteOrderMark)
{
    const std::wstring expected = L"<Event>ä</Event>";
    EXPECT_EQ(host::DecodeText("\xEF\xBB\xBF<Event>\xC3\xA4</Event>"), expected);
    EXPECT_EQ(host::DecodeText("<Event>\xC3\xA4</Event>"), expected);
    std::string utf16le("\xFF\xFE", 2), bare;
    for (wchar_t c : expected) {
        bare += {static_cast<char>(c & 0xFF), static_cast<char>(c >> 8)};
    }
    EXPECT_EQ(host::DecodeText(utf16le + bare), expected);
    EXPECT_EQ(host::DecodeText(bare), expected);  // no mark, as PowerShell redirections may leave it
}

// zeph-host --replay: real shapes in, crash details out, exactly as the provider reports them.
class ReplayRun : public ::testing::Test {
protected:
    HostRun Replay(const std::string& events)
    {
        const std::wstring file = folder_.WriteFile(L"events.xml", events);
        return RunZephHost(
            {L"--config", config_, L"--dll", BinFolder() + L"zeph_eventlog.dll", L"--replay", file, L"--once"});
    }
    // The value column of the table's crash detail lines.
    static Strings Details(const HostRun& run)
    {
        Strings details;
        const std::wregex line(LR"(  appcrash\|crash_details\|\*  \d+ +(.*))");
        std::wsmatch match;
        for (const std::wstring& text : run.OutLines()) {
            if (std::regex_match(text, match, line)) {
                details.push_back(match[1]);
            }
        }
        return details;
    }

    TempFolder folder_;
    std::wstring config_ = folder_.WriteFile(L"host.xml", kCrashConfig);
    std::wstring host_ = L"<br />Host Name: " + MachineName();
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
    const std::string events =
        std::string("evtxexport 20181227\n\n") + kCrash64 +
        R"(<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event"><System><Provider Name="Application Error"/><EventID>1000</EventID><TimeCreated SystemTime="2024-05-14T09:27:45.901638200Z"/><Channel>Application</Channel></System><EventData><Data>größe.exe</Data><Data>3.8.1.0</Data><Data>5c1a7f0e</Data><Data>e32.dll</Data><Data>3.8.1.12</Data><Data>5c1a7ee9</Data><Data>c0000005</Data><Data>0002b1c4</Data><Data>2e40</Data><Data>01daa5e1f4a0c917</Data><Data>C:\Program Files (x86)\Größe\größe.exe</Data><Data>C:\Program Files (x86)\Größe\e32.dll</Data><Data>5e0c4a8b</Data><Data>Contoso.Größe_3.8.1.0_x86__8wekyb3d8bbwe</Data><Data>App</Data></EventData></Event>
<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event"><System><Provider Name="Application Error"/><EventID>1000</EventID><TimeCreated SystemTime="2024-05-14T09:30:00Z"/><Channel>System</Channel></System></Event>
<Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event"><System><Provider Name="Application Error"/><EventID>1000</EventID><TimeCreated SystemTime="2024-05-14T09:31:00Z"/><Channel>Application</Channel></System><EventData><Data>old.exe</Data></EventData><RenderingInfo Culture="en-US"><Message>Faulting application name: old.exe</Message></RenderingInfo></Event>
)";
    const HostRun run = Replay(events);
    EXPECT_EQ(run.exitCode, 0u) << testing::PrintToString(run.err);
    EXPECT_EQ(
        Details(run),
        (Strings{
            L"Faulting application name: ledger.exe, version: 4.2.0.118, time stamp: 0x65f1c2a0<br />"
            L"Faulting module name: ntdll.dll, version: 10.0.19041.3636, time stamp: 0xb5ced1c6<br />"
            L"Exception code: 0xc0000374<br />Fault offset: 0x00000000000ff6a9<br />Faulting process id: 0x1cf4<br />"
            L"Faulting application start time: 0x01daa5e0b2c84f3d<br />Faulting application path: C:\\Program "
            L"Files\\Ledger\\ledger.exe<br />"
            L"Faulting module path: C:\\Windows\\SYSTEM32\\ntdll.dll<br />Report Id: "
            L"a3b1f0d2-6c4e-4b8a-9e71-5d20c8f4e613<br />"
            L"Faulting package full name: <br />Faulting package-relative application ID: "
            L"<br />Crash Time: 2024-05-14 09:12:03" +
                host_,
            L"Faulting application name: größe.exe, version: 3.8.1.0, time stamp: 0x5c1a7f0e<br />"
            L"Faulting module name: e32.dll, version: 3.8.1.12, time stamp: 0x5c1a7ee9<br />"
            L"Exception code: 0xc0000005<br />Fault offset: 0x0002b1c4<br />Faulting process id: 0x2e40<br />"
            L"Faulting application start time: 0x01daa5e1f4a0c917<br />Faulting application path: C:\\Program Files "
            L"(x86)\\Größe\\größe.exe<br />"
            L"Faulting module path: C:\\Program Files (x86)\\Größe\\e32.dll<br />Report Id: 5e0c4a8b<br />"
            L"Faulting package full name: Contoso.Größe_3.8.1.0_x86__8wekyb3d8bbwe<br />Faulting package-relative "
            L"application ID: App"
            L"<br />Crash Time: 2024-05-14 09:27:45" +
                host_,
            L"Faulting application name: old.exe<br />Crash Time: 2024-05-14 09:31:00" + host_,
        }));
    EXPECT_NE(run.err.find(L"4 event(s) read, 3 written, 1 skipped"), std::wstring::npos)
        << testing::PrintToString(run.err);
}

}  // namespace
}  // namespace zeph::test
