// Scenario files, and a recorded run: zeph-host replays a short scenario against
// the simulated event log with the DLL loaded by path, and its table and JSON
// output are compared line by line, keys, values and time stamps exact.
#include "host_process.h"
#include "scenario.h"

#include <gtest/gtest.h>

#include <regex>

namespace zeph::test {
namespace {

using Lines = std::vector<std::wstring>;

TEST(ScenarioText, BlockLinesDropFramingAndCommonIndentation)
{
    using host::BlockLines;
    EXPECT_EQ(BlockLines(L"\n      first\n        second\n\n      third   \n    "),
              (Lines{L"first", L"  second", L"", L"third"}));
    EXPECT_EQ(BlockLines(L"\r\n\ta\r\n\t\tb\r\tc\r\n"), (Lines{L"a", L"\tb", L"c"}));  // any line end; tabs indent
    EXPECT_EQ(BlockLines(L"User is logging in"), (Lines{L"User is logging in"}));
    EXPECT_EQ(BlockLines(L"  two  words"), (Lines{L"two  words"}));
    EXPECT_EQ(BlockLines(L""), Lines{});
    EXPECT_EQ(BlockLines(L"\n   \n  "), Lines{});
}

TEST(ScenarioText, UtcTimesToFileTime)
{
    using host::ParseUtcTime;
    constexpr ULONGLONG k20231114T221320 = 133444736000000000ull;  // 1700000000 s after 1970
    EXPECT_EQ(ParseUtcTime(L"2023-11-14T22:13:20Z"), k20231114T221320);
    EXPECT_EQ(ParseUtcTime(L"2023-11-14 22:13:20Z"), k20231114T221320);
    EXPECT_EQ(ParseUtcTime(L"2023-11-14T22:13:20.5Z"), k20231114T221320 + 5000000);
    EXPECT_EQ(ParseUtcTime(L"2023-11-14T22:13:20.123Z"), k20231114T221320 + 1230000);
    EXPECT_EQ(ParseUtcTime(L"2023-11-14T22:13:20.1234567Z"), k20231114T221320 + 1234567);
    EXPECT_TRUE(ParseUtcTime(L"2024-02-29T00:00:00Z").has_value());
    for (const wchar_t* bad : {L"2023-02-29T00:00:00Z", L"2023-11-14T24:00:00Z", L"2023-11-14T22:60:00Z",
                               L"2023-11-14T22:13:60Z", L"2023-13-01T00:00:00Z", L"2023-11-14T22:13:20",
                               L"2023-11-14T22:13:20+01:00", L"2023-11-14T22:13:20.Z", L"2023-11-14T22:13:20.12345678Z",
                               L"2023-11-14T22:13:2xZ", L"23-11-14T22:13:20Z", L""}) {
        EXPECT_FALSE(ParseUtcTime(bad).has_value()) << testing::PrintToString(std::wstring(bad));
    }
}

constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\services\\drovesvc";

class RecordedRun : public ::testing::Test {
protected:
    void SetUp() override
    {
        // The layering service's registry values go into the prefix's own HKLM:
        // the host is a process of its own, so they cannot be redirected.
        auto set = [](const std::wstring& key, const wchar_t* name, DWORD type, const std::wstring& text) {
            return ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, key.c_str(), name, type, text.c_str(),
                                     static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
        };
        ASSERT_EQ(set(kServiceKey, L"ImagePath", REG_EXPAND_SZ, L"\"" + folder_.Path() + L"\\drovesvc.exe\""), 0);
        ASSERT_EQ(set(kServiceKey + std::wstring(L"\\Parameters"), L"Manager1", REG_SZ, L"mgr.test.example:8443"), 0);
        ASSERT_TRUE(::CreateDirectoryW((folder_.Path() + L"\\Logs").c_str(), nullptr));
        // The events' fractions of a second sit at millisecond edges: reported milliseconds are truncated.
        std::string scenario = R"(<scenario>
  <append file="$LOG">
    service started
  </append>
  <event channel="Application" publisher="Application Error" id="1000" time="2023-11-14T22:13:20.1234567Z">
    Faulting application name: ledger.exe, version: 1.0.0.0
      Exception code: 0xc0000005
  </event>
  <event channel="Application" publisher="Application Error" id="1000" time="2023-11-14T22:13:25.0000000Z">Faulting application name: tally.exe</event>
  <query/>
  <event channel="Application" publisher="drovesvc" id="3" time="2023-11-14T22:13:30.9876543Z">User is logging in</event>
  <append file="$LOG">
    Manager status 200 response
    attached MOUNTED-READ;\\fs\tesseras\one.vhdx;t-1
    attached MOUNTED-READ;\\fs\tesseras\two.vhdx;t-2
  </append>
  <event channel="Application" publisher="drovesvc" id="7" time="2023-11-14T22:13:31.0000005Z">Response 200 from Manager</event>
  <event channel="Application" publisher="drovesvc" id="9" time="2023-11-14T22:13:32.0009999Z">New volume event (mounted): disk 2 (VolumeType 2)</event>
  <pause ms="10"/>
  <event channel="Application" publisher="drovesvc" id="14" time="2023-11-14T22:13:33.0010000Z">All volumes finished processing</event>
</scenario>
)";
        const std::string log = std::string(folder_.Path().begin(), folder_.Path().end()) + "\\Logs\\drovesvc.log";
        for (size_t at; (at = scenario.find("$LOG")) != std::string::npos;) scenario.replace(at, 4, log);
        scenario_ = folder_.WriteFile(L"scenario.xml", scenario);
    }
    void TearDown() override
    {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kServiceKey);
        ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kServiceKey);
    }

    // The run's standard output, with the moments of the queries themselves blanked by pattern.
    Lines Run(std::vector<std::wstring> extra, const std::wregex& queryTime, const wchar_t* blank)
    {
        std::vector<std::wstring> arguments = {L"--config", config_, L"--dll", BinFolder() + L"zeph_eventlog.dll",
                                               L"--scenario", scenario_, L"--once"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        const HostRun run = RunZephHost(arguments);
        EXPECT_EQ(run.exitCode, 0u);
        // Nothing but the scenario's own step lines: the provider logged no error or warning.
        const std::wregex step(LR"(\d\d:\d\d:\d\d\.\d\d\d \[scenario\] step \d+: .*)");
        EXPECT_EQ(run.ErrLines().size(), 10u);
        for (const std::wstring& line : run.ErrLines()) {
            EXPECT_TRUE(std::regex_match(line, step)) << testing::PrintToString(line);
        }
        Lines lines = run.OutLines();
        for (std::wstring& line : lines) line = std::regex_replace(line, queryTime, blank);
        return lines;
    }
    std::wstring CrashDetails(const std::wstring& text, const wchar_t* time) const
    {
        return text + L"<br />Crash Time: 2023-11-14 " + time + L"<br />Host Name: " + hostName_;
    }

    TempFolder folder_;
    std::wstring config_ = folder_.WriteFile(L"host.xml", R"(<zeph-host>
  <metric name="eventlog|eventlog_appcrash">
    <channel>Application</channel>
    <query>*[System[Provider[@Name='Application Error']]]</query>
  </metric>
  <metric name="eventlog|eventlog_quillon">
    <channel>Application</channel>
    <query>*[System[Provider[@Name='drovesvc']]]</query>
  </metric>
</zeph-host>
)");
    std::wstring scenario_;
    std::wstring hostName_ = [] {
        wchar_t name[MAX_COMPUTERNAME_LENGTH + 2] = {};
        DWORD size = MAX_COMPUTERNAME_LENGTH + 2;
        EXPECT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, name, &size));
        return std::wstring(name);
    }();
    std::wstring crash1_ = CrashDetails(
        L"Faulting application name: ledger.exe, version: 1.0.0.0<br />  Exception code: 0xc0000005", L"22:13:20");
    std::wstring crash2_ = CrashDetails(L"Faulting application name: tally.exe", L"22:13:25");
};

TEST_F(RecordedRun, Table)
{
    const Lines expected = {
        L"Query 1 at TIME",
        L"eventlog|eventlog_appcrash: 3 values",
        L"  appcrash|contained        appcrash|contained  true",
        L"  appcrash|crash_details|*  1                   " + crash1_,
        L"  appcrash|crash_details|*  2                   " + crash2_,
        L"eventlog|eventlog_quillon: 1 value",
        L"  quillon|mgr  quillon|mgr  mgr.test.example",
        L"",
        L"Query 2 at TIME",
        L"eventlog|eventlog_appcrash: 0 values",
        L"eventlog|eventlog_quillon: 8 values",
        L"  quillon|logon_timestamp           quillon            1700000010987 (2023-11-14 22:13:30.987 UTC)",
        L"  quillon|logon_response_timestamp  quillon            1700000011000 (2023-11-14 22:13:31.000 UTC)",
        L"  quillon|volumes_ready_timestamp   quillon            1700000012000 (2023-11-14 22:13:32.000 UTC)",
        L"  quillon|all_done_timestamp        quillon            1700000013001 (2023-11-14 22:13:33.001 UTC)",
        L"  quillon|mgr                       quillon|mgr        mgr.test.example",
        L"  quillon|instances                 quillon|instances  true",
        L"  quillon|instances|*               t-1                \\\\fs\\tesseras\\one.vhdx",
        L"  quillon|instances|*               t-2                \\\\fs\\tesseras\\two.vhdx",
        L"",
    };
    EXPECT_EQ(Run({}, std::wregex(LR"(Query ([12]) at \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC)"), L"Query $1 at TIME"),
              expected);
}

TEST_F(RecordedRun, JsonLines)
{
    const std::wstring crash = L"{\"query\":1,\"metric\":\"eventlog|eventlog_appcrash\",";
    const std::wstring quillon = L"{\"query\":2,\"metric\":\"eventlog|eventlog_quillon\",";
    auto stamp = [&](const wchar_t* key, const wchar_t* value) {
        return quillon + L"\"key\":\"quillon|" + key + L"\",\"instance\":\"quillon\",\"type\":\"uint64\",\"value\":" +
               value + L"Z\"}";
    };
    auto text = [](const std::wstring& key, const std::wstring& instance, const std::wstring& value) {
        return L"\"key\":\"" + key + L"\",\"instance\":\"" + instance + L"\",\"type\":\"string\",\"value\":\"" + value +
               L"\"}";
    };
    const Lines expected = {
        crash + text(L"appcrash|contained", L"appcrash|contained", L"true"),
        crash + text(L"appcrash|crash_details|*", L"1", crash1_),
        crash + text(L"appcrash|crash_details|*", L"2", crash2_),
        crash + L"\"result\":\"0x00000000\",\"values\":3,\"time\":\"TIME\"}",
        L"{\"query\":1,\"metric\":\"eventlog|eventlog_quillon\"," + text(L"quillon|mgr", L"quillon|mgr", L"mgr.test.example"),
        L"{\"query\":1,\"metric\":\"eventlog|eventlog_quillon\",\"result\":\"0x00000000\",\"values\":1,\"time\":\"TIME\"}",
        L"{\"query\":2,\"metric\":\"eventlog|eventlog_appcrash\",\"result\":\"0x00000000\",\"values\":0,\"time\":\"TIME\"}",
        stamp(L"logon_timestamp", L"1700000010987,\"utc\":\"2023-11-14T22:13:30.987"),
        stamp(L"logon_response_timestamp", L"1700000011000,\"utc\":\"2023-11-14T22:13:31.000"),
        stamp(L"volumes_ready_timestamp", L"1700000012000,\"utc\":\"2023-11-14T22:13:32.000"),
        stamp(L"all_done_timestamp", L"1700000013001,\"utc\":\"2023-11-14T22:13:33.001"),
        quillon + text(L"quillon|mgr", L"quillon|mgr", L"mgr.test.example"),
        quillon + text(L"quillon|instances", L"quillon|instances", L"true"),
        quillon + text(L"quillon|instances|*", L"t-1", L"\\\\\\\\fs\\\\tesseras\\\\one.vhdx"),
        quillon + text(L"quillon|instances|*", L"t-2", L"\\\\\\\\fs\\\\tesseras\\\\two.vhdx"),
        quillon + L"\"result\":\"0x00000000\",\"values\":8,\"time\":\"TIME\"}",
    };
    EXPECT_EQ(Run({L"--json"}, std::wregex(LR"(,"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"\})"),
                  L",\"time\":\"TIME\"}"),
              expected);
}

}  // namespace
}  // namespace zeph::test
