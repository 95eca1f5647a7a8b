// zeph-host's refusals: each ends the run with its documented exit code and a
// single line on standard error, before anything is printed on standard output.
#include "host_process.h"

#include <gtest/gtest.h>

namespace zeph::test {
namespace {

enum : DWORD {
    kRunFailed = 1,
    kUsage = 2,
    kConfigMissing = 3,
    kConfigMalformed = 4,
    kDllNotLoaded = 5,
    kClassNotRegistered = 6,
    kSubscribeFailed = 7,
    kScenarioInvalid = 8,
    kScenarioFailed = 9,
};

struct Refusal {
    std::vector<std::wstring> arguments;
    DWORD exitCode;
    // The line after "zeph-host: "; a '*' stands for a system text of at least one character.
    std::wstring message;
};

class HostErrors : public ::testing::Test {
protected:
    static void Expect(const std::vector<Refusal>& refusals)
    {
        for (const Refusal& r : refusals) {
            SCOPED_TRACE(testing::PrintToString(r.message));
            const HostRun run = RunZephHost(r.arguments);
            EXPECT_EQ(run.exitCode, r.exitCode);
            EXPECT_EQ(run.out, L"");
            const auto lines = run.ErrLines();
            ASSERT_EQ(lines.size(), 1u) << testing::PrintToString(run.err);
            const std::wstring& line = lines[0];
            const size_t star = r.message.find(L'*');
            const std::wstring head = L"zeph-host: " + r.message.substr(0, star);
            const std::wstring tail = star == std::wstring::npos ? L"" : r.message.substr(star + 1);
            if (star == std::wstring::npos) {
                EXPECT_EQ(line, head);
            } else {
                EXPECT_TRUE(line.starts_with(head) && line.ends_with(tail) && line.size() > head.size() + tail.size())
                    << testing::PrintToString(line);
            }
        }
    }
    // The usual arguments with the DLL beside the test, and more.
    std::vector<std::wstring> With(std::vector<std::wstring> more) const
    {
        more.insert(more.begin(), {L"--config", config_, L"--once", L"--dll", dll_});
        return more;
    }

    TempFolder folder_;
    std::wstring config_ = folder_.WriteFile(L"host.xml", kCrashConfig);
    std::wstring dll_ = BinFolder() + L"zeph_eventlog.dll";
};

// One refusal per exit code; the texts are the host's own.
TEST_F(HostErrors, EachRefusalHasItsExitCodeAndLine)
{
    const std::wstring absent = folder_.Path() + L"\\absent.xml";
    const std::wstring eventLogDll = BinFolder() + L"wevtapi.dll";
    const std::wstring noQuery = folder_.WriteFile(
        L"no-query.xml",
        "<zeph-host><metric name=\"eventlog|eventlog_appcrash\"><channel>Application</channel><query>*</query></metric>"
        "<metric name=\"eventlog|eventlog_quillon\"><channel>Application</channel></metric></zeph-host>");
    const std::wstring badScenario = folder_.WriteFile(
        L"bad.xml", "<scenario><event channel='Application' publisher='p' id='70000'>x</event></scenario>");
    // Away from the simulator's wevtapi.dll the provider gets the system's (Wine's own).
    const std::wstring copy = folder_.Path() + L"\\zeph_eventlog.dll";
    ASSERT_TRUE(::CopyFileW(dll_.c_str(), copy.c_str(), TRUE));
    const std::wstring query = folder_.WriteFile(L"s.xml", "<scenario><query/></scenario>");
    // The fault's place is the bad end tag's, not that of the text before it.
    const std::wstring mismatched = folder_.WriteFile(
        L"mismatched.xml",
        "<zeph-host>\n  <metric name=\"a\">\n    <channel>Application</chanel>\n  </metric>\n</zeph-host>\n");
    // One element deeper than the DOM takes: its 257th <a>, after the root's 11 characters.
    std::string nested = "<zeph-host>";
    for (int i = 0; i < 257 * 2; ++i) {
        nested += i < 257 ? "<a>" : "</a>";
    }
    const std::wstring deep = folder_.WriteFile(L"deep.xml", nested + "</zeph-host>");
    // Found by the fuzzer: Wine's SAX reader overran its stack quoting this namespace in a warning.
    const std::wstring longValue =
        folder_.WriteFile(L"long-value.xml", "<zeph-host xmlns=\"x" + std::string(1500, ' ') + "\"/>");
    // As regsvr32 /i:user /n leaves it: classes of the current user only.
    ASSERT_EQ(::RegSetKeyValueW(HKEY_CURRENT_USER, L"Software\\Classes\\ZephTest.UserOnly\\CLSID", nullptr, REG_SZ,
                                L"{5A1E7C00-0000-4000-8000-00000000DEAD}", 78),
              0);
    struct UserKey {
        ~UserKey() { ::RegDeleteTreeW(HKEY_CURRENT_USER, L"Software\\Classes\\ZephTest.UserOnly"); }
    } removed;
    const std::wstring notRegistered =
        L"' is not registered: register the provider (regsvr32 zeph_eventlog.dll) or give --dll PATH";
    Expect({
        {{L"--register-tlb", config_ + L".tlb"},
         kRunFailed,
         L"cannot load the type library '" + config_ + L".tlb': file not found"},
        {{L"--config", config_, L"--once", L"--interval", L"5"},
         kUsage,
         L"--once and --interval exclude each other (see zeph-host --help)"},
        {{L"--config", mismatched, L"--once"},
         kConfigMalformed,
         L"the configuration file '" + mismatched +
             L"' is not well-formed XML at line 3, column 25: Opening and ending tag mismatch: channel line 3 and "
             L"chanel"},
        {{L"--config", deep, L"--once"},
         kConfigMalformed,
         L"the configuration file '" + deep +
             L"' is nested too deeply at line 1, column 780: an element 258 levels deep, where the XML parser takes "
             L"257"},
        {{L"--config", longValue, L"--once"},
         kConfigMalformed,
         L"the configuration file '" + longValue + L"' has no <metric> element"},
        {{L"--config", config_, L"--once", L"--progid", L"ZephTest.UserOnly"},
         kClassNotRegistered,
         L"the class 'ZephTest.UserOnly" + notRegistered +
             L"; it is registered for the current user only (regsvr32 /i:user /n), which Wine does not merge into "
             L"HKEY_CLASSES_ROOT: register it machine-wide"},
        {{L"--config", absent, L"--once"}, kConfigMissing, L"cannot read the configuration file '" + absent + L"': *"},
        {{L"--config", config_, L"--once", L"--dll", eventLogDll},
         kDllNotLoaded,
         L"'" + eventLogDll + L"' is not a COM server: it does not export DllGetClassObject"},
        // The provider's own log lines stay off, so the host's line is the only one.
        {{L"--config", noQuery, L"--once", L"--log", L"none", L"--dll", dll_},
         kSubscribeFailed,
         L"cannot subscribe the metric 'eventlog|eventlog_quillon': 0x80070490*"},
        // Refused before the provider is created: no query, no scenario step.
        {With({L"--replay", absent}), kScenarioInvalid, L"cannot read the event file '" + absent + L"': *"},
        {With({L"--scenario", badScenario}), kScenarioInvalid,
         L"the scenario '" + badScenario +
             L"', step 1 <event>: attribute id must be a whole number from 0 to 65535, not '70000'"},
        {{L"--config", config_, L"--once", L"--dll", copy, L"--scenario", query},
         kScenarioFailed,
         L"scenario replay needs the simulated event log, but the wevtapi.dll in use (*) is the system's event log"},
    });
}

// A metric that will report nothing is still handed to the provider as written, and
// named on standard error, one line each, with what to do. Against Wine's stub event
// log, which answers every check with success, one note says the checks were skipped.
TEST_F(HostErrors, MetricsThatWillReportNothingAreNamed)
{
    const std::wstring config = folder_.WriteFile(L"unusable.xml", R"(<zeph-host>
  <metric name="eventlog|eventlog_appcrash"><channel>Nowhere</channel><query>*</query></metric>
  <metric name="eventlog|eventlog_quillon"><channel>Application</channel><query>*[System[</query></metric>
  <metric name="eventlog|eventlog_typo"><channel>Application</channel><query>*</query></metric>
  <metric name="eventlog|eventlog_appcrash"><channel>Nowhere either</channel></metric>
</zeph-host>
)");
    const HostRun run = RunZephHost({L"--config", config, L"--once", L"--log", L"none", L"--dll", dll_});
    EXPECT_EQ(run.exitCode, 0u);
    const std::wstring warning = L"zeph-host: warning: metric 'eventlog|eventlog_";
    const std::wstring nothing = L": the metric will report nothing; ";
    EXPECT_EQ(run.ErrLines(),
              (std::vector<std::wstring>{
                  warning + L"appcrash': channel 'Nowhere' does not exist on this machine" + nothing +
                      L"fix its <channel> (wevtutil el lists this machine's channels)",
                  warning +
                      L"quillon': the event log rejects the query '*[System[': 0x00003a99 (The specified query "
                      L"is not valid.)" +
                      nothing +
                      L"fix its <query>, an XPath filter of events such as "
                      L"*[System[Provider[@Name='Application Error']]] (* takes them all)",
                  warning + L"typo': the provider has no metric of this name and took nothing" + nothing +
                      L"the names it knows are 'eventlog|eventlog_appcrash' and 'eventlog|eventlog_quillon'",
              }));
    for (const wchar_t* metric : {L"appcrash: 0 values", L"quillon: 0 values", L"typo: 0 values"}) {
        EXPECT_NE(run.out.find(std::wstring(L"eventlog|eventlog_") + metric), std::wstring::npos) << run.out.size();
    }

    // Away from the simulator's wevtapi.dll the provider gets Wine's own.
    const std::wstring copy = folder_.Path() + L"\\zeph_eventlog.dll";
    ASSERT_TRUE(::CopyFileW(dll_.c_str(), copy.c_str(), TRUE));
    const HostRun stub = RunZephHost({L"--config", config_, L"--once", L"--log", L"none", L"--dll", copy});
    EXPECT_EQ(stub.exitCode, 0u);
    const auto lines = stub.ErrLines();
    ASSERT_EQ(lines.size(), 1u) << testing::PrintToString(stub.err);
    EXPECT_TRUE(lines[0].starts_with(L"zeph-host: note: the event log in use (") &&
                lines[0].ends_with(L"wevtapi.dll) is Wine's own, a stub that delivers no events: the metrics will "
                                   L"report no events, and their channels and queries go unchecked; run with the "
                                   L"simulated event log (the wevtapi.dll of the build's bin folder) beside the "
                                   L"provider DLL, as build/zeph-host does"))
        << testing::PrintToString(lines[0]);
}

TEST_F(HostErrors, FailedStepEndsTheRunAndUnsubscribes)
{
    const std::wstring target = folder_.Path() + L"\\no such folder\\service.log";
    const std::string xml = "<scenario><query/><append file='" + std::string(target.begin(), target.end()) +
                            "'>line</append><query/></scenario>";  // the temporary folder's path is ASCII
    const HostRun run = RunZephHost(With({L"--log", L"info", L"--scenario", folder_.WriteFile(L"s.xml", xml)}));
    EXPECT_EQ(run.exitCode, kScenarioFailed);
    EXPECT_EQ(run.OutLines().size(), 3u) << "the first query ran: " << testing::PrintToString(run.out);
    const auto lines = run.ErrLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(lines.back().starts_with(L"zeph-host: scenario step 2: cannot append to '" + target + L"': "))
        << testing::PrintToString(lines.back());
    EXPECT_NE(run.err.find(L"] eventlog: Unsubscribed all metrics.\n"), std::wstring::npos)
        << testing::PrintToString(run.err);
}

// tools/host/README.md shows --help's output rather than a copy of its tables: the block
// after "`zeph-host --help` prints:" is the program's text, to the character.
TEST(HostHelp, ManualShowsTheHelpText)
{
    const HostRun run = RunZephHost({L"--help"});
    EXPECT_EQ(run.exitCode, 0u);
    const auto manual = SplitLines(ReadUtf8File(FromUtf8(ZEPH_HOST_MANUAL)));
    const auto intro = std::find(manual.begin(), manual.end(), L"`zeph-host --help` prints:");
    ASSERT_TRUE(intro != manual.end() && intro + 1 != manual.end());
    std::vector<std::wstring> shown;
    for (auto line = intro + 2; line != manual.end() && (line->empty() || line->starts_with(L"    ")); ++line) {
        shown.push_back(line->empty() ? *line : line->substr(4));
    }
    while (!shown.empty() && shown.back().empty()) {
        shown.pop_back();
    }
    EXPECT_EQ(shown, run.OutLines());
}

}  // namespace
}  // namespace zeph::test
