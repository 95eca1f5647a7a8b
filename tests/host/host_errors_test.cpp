// zeph-host's refusals: each ends the run with its documented exit code and a
// single line on standard error, before anything is printed on standard output.
#include "host_process.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zeph::test {
namespace {

constexpr DWORD kUsage = 2;
constexpr DWORD kConfigMissing = 3;
constexpr DWORD kConfigMalformed = 4;
constexpr DWORD kDllNotLoaded = 5;
constexpr DWORD kClassNotRegistered = 6;
constexpr DWORD kSubscribeFailed = 7;
constexpr DWORD kScenarioInvalid = 8;
constexpr DWORD kScenarioFailed = 9;

constexpr char kGoodConfig[] = R"(<zeph-host>
  <metric name="eventlog|eventlog_appcrash">
    <channel>Application</channel>
    <query>*[System[Provider[@Name='Application Error']]]</query>
  </metric>
</zeph-host>
)";

struct ErrorCase {
    std::vector<std::wstring> arguments;
    DWORD exitCode;
    std::wstring message;  // after "zeph-host: "
    bool wholeLine = true; // false: the line starts with message (a system text follows)
};

void ExpectRefusal(const ErrorCase& c, const HostRun& run)
{
    const std::wstring expected = L"zeph-host: " + c.message;
    SCOPED_TRACE(::testing::PrintToString(expected));
    EXPECT_EQ(run.exitCode, c.exitCode);
    EXPECT_EQ(run.out, L"");
    const auto lines = run.ErrLines();
    ASSERT_EQ(lines.size(), 1u) << ::testing::PrintToString(run.err);
    if (c.wholeLine) {
        EXPECT_EQ(lines[0], expected);
    } else {
        EXPECT_TRUE(lines[0].starts_with(expected)) << ::testing::PrintToString(lines[0]);
        EXPECT_GT(lines[0].size(), expected.size()) << "the reason is missing";
    }
}

void ExpectRefusals(const std::vector<ErrorCase>& cases)
{
    for (const ErrorCase& c : cases) {
        ExpectRefusal(c, RunZephHost(c.arguments));
    }
}

TEST(HostErrors, UsageErrorsExitWithTwo)
{
    const TempFolder folder;
    const std::wstring config = folder.WriteFile(L"host.xml", kGoodConfig);
    const std::wstring help = L" (see zeph-host --help)";
    ExpectRefusals({
        {{L"--frobnicate"}, kUsage, L"unknown option '--frobnicate'" + help},
        {{L"--config"}, kUsage, L"option --config needs a value" + help},
        {{L"--config", config, L"--interval", L"0"}, kUsage,
         L"--interval takes a number of seconds from 1 to 86400, not '0'" + help},
        {{L"--config", config, L"--interval=99999999999"}, kUsage,
         L"--interval takes a number of seconds from 1 to 86400, not '99999999999'" + help},
        {{L"--config", config, L"--log", L"error,debug"}, kUsage,
         L"--log takes error, warning, info (comma-separated), all or none, not 'error,debug'" + help},
        {{L"--config", config, L"--once=yes"}, kUsage, L"option --once takes no value" + help},
        {{L"--config", config, L"--dll", L"a.dll", L"--progid", L"A.B"}, kUsage,
         L"--dll and --progid exclude each other" + help},
        {{L"--once"}, kUsage, L"no configuration file: give --config FILE" + help},
        {{L"--config", config, L"stray"}, kUsage, L"unexpected argument 'stray'" + help},
    });
}

TEST(HostErrors, HelpDocumentsOptionsAndExitCodes)
{
    const HostRun run = RunZephHost({L"--help"});
    EXPECT_EQ(run.exitCode, 0u);
    EXPECT_EQ(run.err, L"");
    for (const wchar_t* option : {L"--config", L"--dll", L"--progid", L"--once", L"--interval", L"--json", L"--log",
                                  L"--scenario", L"--register-tlb", L"--unregister-tlb", L"--help"}) {
        EXPECT_NE(run.out.find(option), std::wstring::npos) << "--help does not mention " << ::testing::PrintToString(option);
    }
    for (int code = 0; code <= 9; ++code) {
        EXPECT_NE(run.out.find(L"\n  " + std::to_wstring(code) + L"  "), std::wstring::npos)
            << "--help does not document exit code " << code;
    }
}

TEST(HostErrors, ConfigurationMissingOrMalformed)
{
    const TempFolder folder;
    const std::wstring absent = folder.Path() + L"\\absent.xml";
    const std::wstring unclosed = folder.WriteFile(L"unclosed.xml", "<zeph-host><metric name=\"a\">\n");
    const std::wstring noMetric = folder.WriteFile(L"none.xml", "<zeph-host>\n  <!-- nothing -->\n</zeph-host>\n");
    const std::wstring foreign =
        folder.WriteFile(L"foreign.xml", "<zeph-host><metric name=\"m\"/><metrics name=\"n\"/></zeph-host>");
    const std::wstring unnamed = folder.WriteFile(
        L"unnamed.xml", "<zeph-host><metric name=\"m\"/><metric><channel>Application</channel></metric></zeph-host>");
    auto quoted = [](const std::wstring& path) { return L"the configuration file '" + path + L"'"; };
    ExpectRefusals({
        {{L"--config", absent, L"--once"}, kConfigMissing, L"cannot read " + quoted(absent) + L": ", false},
        {{L"--config", unclosed, L"--once"}, kConfigMalformed, quoted(unclosed) + L" is not well-formed XML", false},
        {{L"--config", noMetric, L"--once"}, kConfigMalformed, quoted(noMetric) + L" has no <metric> element"},
        {{L"--config", foreign, L"--once"}, kConfigMalformed,
         quoted(foreign) + L" has an element <metrics> where only <metric> may stand"},
        {{L"--config", unnamed, L"--once"}, kConfigMalformed, quoted(unnamed) + L": metric 2 has no name attribute"},
    });
}

TEST(HostErrors, ProviderThatCannotBeCreated)
{
    const TempFolder folder;
    const std::wstring config = folder.WriteFile(L"host.xml", kGoodConfig);
    const std::wstring absentDll = folder.Path() + L"\\absent.dll";
    const std::wstring eventLogDll = BinFolder() + L"wevtapi.dll";
    wchar_t system[MAX_PATH] = {};
    ::GetSystemDirectoryW(system, MAX_PATH);
    const std::wstring otherServer = std::wstring(system) + L"\\msxml3.dll";
    ExpectRefusals({
        {{L"--config", config, L"--once", L"--dll", absentDll}, kDllNotLoaded,
         L"cannot load the provider DLL '" + absentDll + L"': ", false},
        {{L"--config", config, L"--once", L"--dll", config}, kDllNotLoaded,
         L"cannot load the provider DLL '" + config + L"': ", false},
        {{L"--config", config, L"--once", L"--dll", eventLogDll}, kDllNotLoaded,
         L"'" + eventLogDll + L"' is not a COM server: it does not export DllGetClassObject"},
        {{L"--config", config, L"--once", L"--dll", otherServer}, kClassNotRegistered,
         L"'" + otherServer + L"' does not offer the provider class {DAF69464-F4E2-40C0-BCC3-A30E819975F0}"},
        {{L"--config", config, L"--once", L"--progid", L"ZephTest.NoSuchProvider"}, kClassNotRegistered,
         L"the class 'ZephTest.NoSuchProvider' is not registered: register the provider (regsvr32 zeph_eventlog.dll) "
         L"or give --dll PATH"},
    });
}

TEST(HostErrors, SubscriptionRefusedByTheProvider)
{
    const TempFolder folder;
    const std::wstring noChannel = folder.WriteFile(
        L"no-channel.xml", "<zeph-host><metric name=\"eventlog|eventlog_appcrash\"><query>*</query></metric></zeph-host>");
    const std::wstring noQuery = folder.WriteFile(
        L"no-query.xml",
        "<zeph-host><metric name=\"eventlog|eventlog_appcrash\"><channel>Application</channel><query>*</query></metric>"
        "<metric name=\"eventlog|eventlog_quillon\"><channel>Application</channel></metric></zeph-host>");
    const std::wstring dll = BinFolder() + L"zeph_eventlog.dll";
    // The provider's own log lines stay off, so the host's line is the only one.
    ExpectRefusals({
        {{L"--config", noChannel, L"--once", L"--log", L"none", L"--dll", dll}, kSubscribeFailed,
         L"cannot subscribe the metric 'eventlog|eventlog_appcrash': 0x80070490", false},
        {{L"--config", noQuery, L"--once", L"--log", L"none", L"--dll", dll}, kSubscribeFailed,
         L"cannot subscribe the metric 'eventlog|eventlog_quillon': 0x80070490", false},
    });
}

TEST(HostErrors, ScenarioMissingOrMalformed)
{
    const TempFolder folder;
    const std::wstring config = folder.WriteFile(L"host.xml", kGoodConfig);
    const std::wstring dll = BinFolder() + L"zeph_eventlog.dll";
    const std::wstring absent = folder.Path() + L"\\absent.xml";
    struct Bad {
        const char* xml;
        std::wstring problem;
    };
    const std::vector<Bad> bad = {
        {"<steps><query/></steps>", L" must have the root element <scenario>, not <steps>"},
        {"<scenario><query/><wait ms='5'/></scenario>",
         L", step 2 <wait>: unknown step (expected event, append, pause or query)"},
        {"<scenario><event channel='Application' publisher='p'>text</event></scenario>",
         L", step 1 <event>: attribute id is missing"},
        {"<scenario><event channel='Application' publisher='p' id='70000'>x</event></scenario>",
         L", step 1 <event>: attribute id must be a whole number from 0 to 65535, not '70000'"},
        {"<scenario><event channel='Application' publisher='p' id='1' time='2024-02-30T10:00:00Z'>x</event></scenario>",
         L", step 1 <event>: attribute time must read like 2024-05-14T08:02:11.418Z (UTC), not '2024-02-30T10:00:00Z'"},
        {"<scenario><pause ms='-1'/></scenario>",
         L", step 1 <pause>: attribute ms must be a whole number from 0 to 3600000, not '-1'"},
        {"<scenario><query>now</query></scenario>", L", step 1 <query>: takes no content"},
        {"<scenario><append>line</append></scenario>", L", step 1 <append>: attribute file is missing"},
        {"<scenario><append file='x.log'><line/></append></scenario>", L", step 1 <append>: holds text only, no elements"},
    };
    std::vector<ErrorCase> cases = {
        {{L"--config", config, L"--once", L"--dll", dll, L"--scenario", absent}, kScenarioInvalid,
         L"cannot read the scenario '" + absent + L"': ", false},
    };
    for (size_t i = 0; i < bad.size(); ++i) {
        const std::wstring file = folder.WriteFile(L"bad" + std::to_wstring(i) + L".xml", bad[i].xml);
        cases.push_back({{L"--config", config, L"--once", L"--dll", dll, L"--scenario", file}, kScenarioInvalid,
                         L"the scenario '" + file + L"'" + bad[i].problem});
    }
    ExpectRefusals(cases);
}

TEST(HostErrors, ScenarioNeedsTheSimulatedEventLog)
{
    const TempFolder folder;
    const std::wstring config = folder.WriteFile(L"host.xml", kGoodConfig);
    const std::wstring scenario = folder.WriteFile(L"scenario.xml", "<scenario><query/></scenario>");
    // Away from the simulator's wevtapi.dll the provider gets the system's (Wine's own).
    const std::wstring dll = folder.Path() + L"\\zeph_eventlog.dll";
    ASSERT_TRUE(::CopyFileW((BinFolder() + L"zeph_eventlog.dll").c_str(), dll.c_str(), TRUE));

    const HostRun run = RunZephHost({L"--config", config, L"--once", L"--dll", dll, L"--scenario", scenario});
    ExpectRefusal({{}, kScenarioFailed,
                   L"scenario replay needs the simulated event log, but the wevtapi.dll in use (", false},
                  run);
    const auto lines = run.ErrLines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_TRUE(lines[0].ends_with(L") is the system's event log")) << ::testing::PrintToString(lines[0]);
}

TEST(HostErrors, FailedStepEndsTheRunAndUnsubscribes)
{
    const TempFolder folder;
    const std::wstring config = folder.WriteFile(L"host.xml", kGoodConfig);
    const std::wstring target = folder.Path() + L"\\no such folder\\service.log";
    std::string xml = "<scenario><query/><append file='";
    for (wchar_t c : target) {
        xml += static_cast<char>(c);  // the temporary folder's path is ASCII
    }
    xml += "'>line</append><query/></scenario>";
    const std::wstring scenario = folder.WriteFile(L"scenario.xml", xml);

    const HostRun run = RunZephHost({L"--config", config, L"--once", L"--log", L"info", L"--dll",
                                     BinFolder() + L"zeph_eventlog.dll", L"--scenario", scenario});
    EXPECT_EQ(run.exitCode, kScenarioFailed);
    EXPECT_EQ(run.OutLines().size(), 3u) << "the first query ran: " << ::testing::PrintToString(run.out);
    const std::wstring failure = L"zeph-host: scenario step 2: cannot append to '" + target + L"': ";
    const auto lines = run.ErrLines();
    ASSERT_FALSE(lines.empty());
    EXPECT_TRUE(lines.back().starts_with(failure)) << ::testing::PrintToString(lines.back());
    EXPECT_NE(run.err.find(L"] eventlog: Unsubscribed all metrics.\n"), std::wstring::npos)
        << ::testing::PrintToString(run.err);
}

}  // namespace
}  // namespace zeph::test
