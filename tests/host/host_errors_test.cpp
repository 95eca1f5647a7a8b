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
    const std::wstring unclosed =
        folder_.WriteFile(L"unclosed.xml", "<zeph-host>\n  <metric name=\"a\"></metrics>\n</zeph-host>\n");
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
        {{L"--config", unclosed, L"--once"},
         kConfigMalformed,
         L"the configuration file '" + unclosed +
             L"' is not well-formed XML at line 2, column *: Opening and ending tag mismatch: metric line 2 and "
             L"metrics"},
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
        {With({L"--scenario", badScenario}), kScenarioInvalid,
         L"the scenario '" + badScenario +
             L"', step 1 <event>: attribute id must be a whole number from 0 to 65535, not '70000'"},
        {{L"--config", config_, L"--once", L"--dll", copy, L"--scenario", query},
         kScenarioFailed,
         L"scenario replay needs the simulated event log, but the wevtapi.dll in use (*) is the system's event log"},
    });
}

// A metric that will report nothing is still handed to the provider as written, and
// named on standard error, one line each.
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
    const std::wstring nothing = L": the metric will report nothing";
    const auto lines = run.ErrLines();
    ASSERT_EQ(lines.size(), 3u) << testing::PrintToString(run.err);
    EXPECT_EQ(lines[0], warning + L"appcrash': channel 'Nowhere' does not exist on this machine" + nothing);
    EXPECT_TRUE(lines[1].starts_with(warning + L"quillon': the event log rejects the query '*[System[': 0x00003a99") &&
                lines[1].ends_with(nothing))
        << testing::PrintToString(lines[1]);
    EXPECT_EQ(lines[2], warning + L"typo': the provider has no metric of this name and took nothing" + nothing);
    for (const wchar_t* metric : {L"appcrash: 0 values", L"quillon: 0 values", L"typo: 0 values"}) {
        EXPECT_NE(run.out.find(std::wstring(L"eventlog|eventlog_") + metric), std::wstring::npos) << run.out.size();
    }
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

}  // namespace
}  // namespace zeph::test
