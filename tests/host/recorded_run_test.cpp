// A recorded run: zeph-host replays a short scenario (indented blocks, times to 100 ns)
// against the simulated event log with the DLL loaded by path, and its table output
// is compared line by line, keys, values and time stamps exact.
#include "host_process.h"

#include <gtest/gtest.h>

#include <regex>

namespace zeph::test {
namespace {

using Lines = std::vector<std::wstring>;

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
        for (size_t at; (at = scenario.find("$LOG")) != std::string::npos;) {
            scenario.replace(at, 4, log);
        }
        scenario_ = folder_.WriteFile(L"scenario.xml", scenario);
    }
    void TearDown() override
    {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kServiceKey);
        ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kServiceKey);
    }

    // The run's standard output, with the moments of the queries themselves blanked.
    Lines Run()
    {
        const HostRun run = RunZephHost(
            {L"--config", config_, L"--dll", BinFolder() + L"zeph_eventlog.dll", L"--scenario", scenario_, L"--once"});
        EXPECT_EQ(run.exitCode, 0u);
        // Nothing but the scenario's own step lines: the provider logged no error or warning.
        const std::wregex step(LR"(\d\d:\d\d:\d\d\.\d\d\d \[scenario\] step \d+: .*)");
        EXPECT_EQ(run.ErrLines().size(), 10u);
        for (const std::wstring& line : run.ErrLines()) {
            EXPECT_TRUE(std::regex_match(line, step)) << testing::PrintToString(line);
        }
        const std::wregex queryTime(LR"(Query ([12]) at \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC)");
        Lines lines = run.OutLines();
        for (std::wstring& line : lines) {
            line = std::regex_replace(line, queryTime, L"Query $1 at TIME");
        }
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
    std::wstring hostName_ = MachineName();
    std::wstring crash1_ = CrashDetails(
        L"Faulting application name: ledger.exe, version: 1.0.0.0<br />  Exception code: 0xc0000005", L"22:13:20");
    std::wstring crash2_ = CrashDetails(L"Faulting application name: tally.exe", L"22:13:25");
};

TEST_F(RecordedRun, Table)
{
    const Lines expected = {
        L"Query 1 at TIME",
        L"eventlog|eventlog_appcrash: 3 values",
        L"  key                       instance            value",
        L"  appcrash|contained        appcrash|contained  true",
        L"  appcrash|crash_details|*  1                   " + crash1_,
        L"  appcrash|crash_details|*  2                   " + crash2_,
        L"eventlog|eventlog_quillon: 1 value",
        L"  key          instance     value",
        L"  quillon|mgr  quillon|mgr  mgr.test.example",
        L"",
        L"Query 2 at TIME",
        L"eventlog|eventlog_appcrash: 0 values",
        L"eventlog|eventlog_quillon: 8 values",
        L"  key                               instance           value",
        L"  quillon|logon_timestamp           quillon            1700000010987 (2023-11-14 22:13:30.987 UTC)",
        L"  quillon|logon_response_timestamp  quillon            1700000011000 (2023-11-14 22:13:31.000 UTC)",
        L"  quillon|volumes_ready_timestamp   quillon            1700000012000 (2023-11-14 22:13:32.000 UTC)",
        L"  quillon|all_done_timestamp        quillon            1700000013001 (2023-11-14 22:13:33.001 UTC)",
        L"  quillon|mgr                       quillon|mgr        mgr.test.example",
        L"  quillon|instances                 quillon|instances  true",
        L"  quillon|instances|*               t-1                \\\\fs\\tesseras\\one.vhdx",
        L"  quillon|instances|*               t-2                \\\\fs\\tesseras\\two.vhdx",
        L"  log-on phases, from the time stamps above:",
        L"    log-on to the manager's response         0.013 s",
        L"    the manager's response to volumes ready  1.000 s",
        L"    volumes ready to all done                1.001 s",
        L"    the whole log-on                         2.014 s",
        L"",
    };
    EXPECT_EQ(Run(), expected);
}

}  // namespace
}  // namespace zeph::test
