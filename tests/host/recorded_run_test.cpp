// A recorded run: zeph-host replays a short scenario against the simulated event
// log with the DLL loaded by path, and its table and JSON output are compared
// line by line. Keys and values are exact; the expected time stamps are computed
// from the moments written into the scenario.
#include "host_process.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <regex>
#include <string>
#include <vector>

namespace zeph::test {
namespace {

constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\services\\drovesvc";
constexpr wchar_t kManager[] = L"mgr.test.example";

constexpr char kConfig[] = R"(<zeph-host>
  <metric name="eventlog|eventlog_appcrash">
    <channel>Application</channel>
    <query>*[System[Provider[@Name='Application Error']]]</query>
  </metric>
  <metric name="eventlog|eventlog_quillon">
    <channel>Application</channel>
    <query>*[System[Provider[@Name='drovesvc']]]</query>
  </metric>
</zeph-host>
)";

// A moment as a FILETIME: a whole UTC second plus 100 ns units.
struct Moment {
    ULONGLONG fileTime;

    static Moment Of(WORD hour, WORD minute, WORD second, ULONGLONG ticks = 0)
    {
        const SYSTEMTIME utc = {2023, 11, 0, 14, hour, minute, second, 0};
        FILETIME time = {};
        EXPECT_TRUE(::SystemTimeToFileTime(&utc, &time));
        return {((static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime) + ticks};
    }

    SYSTEMTIME Utc() const
    {
        FILETIME time = {static_cast<DWORD>(fileTime), static_cast<DWORD>(fileTime >> 32)};
        SYSTEMTIME utc = {};
        ::FileTimeToSystemTime(&time, &utc);
        return utc;
    }

    // As the scenario writes it, with all seven fraction digits.
    std::string Iso() const
    {
        const SYSTEMTIME utc = Utc();
        char text[40] = {};
        std::snprintf(text, sizeof(text), "%04u-%02u-%02uT%02u:%02u:%02u.%07lluZ", utc.wYear, utc.wMonth, utc.wDay,
                      utc.wHour, utc.wMinute, utc.wSecond, fileTime % 10000000ull);
        return text;
    }

    ULONGLONG UnixMs() const { return (fileTime - 116444736000000000ull) / 10000ull; }

    std::wstring Table() const
    {
        const SYSTEMTIME utc = Utc();
        wchar_t text[64] = {};
        std::swprintf(text, 64, L"%llu (%04u-%02u-%02u %02u:%02u:%02u.%03u UTC)", UnixMs(), utc.wYear, utc.wMonth,
                      utc.wDay, utc.wHour, utc.wMinute, utc.wSecond, utc.wMilliseconds);
        return text;
    }

    std::wstring Json() const
    {
        const SYSTEMTIME utc = Utc();
        wchar_t text[80] = {};
        std::swprintf(text, 80, L"\"value\":%llu,\"utc\":\"%04u-%02u-%02uT%02u:%02u:%02u.%03uZ\"", UnixMs(), utc.wYear,
                      utc.wMonth, utc.wDay, utc.wHour, utc.wMinute, utc.wSecond, utc.wMilliseconds);
        return text;
    }

    // As a crash detail shows it: whole seconds.
    std::wstring CrashTime() const
    {
        const SYSTEMTIME utc = Utc();
        wchar_t text[40] = {};
        std::swprintf(text, 40, L"%04u-%02u-%02u %02u:%02u:%02u", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                      utc.wMinute, utc.wSecond);
        return text;
    }
};

const Moment kCrash1 = Moment::Of(22, 13, 20, 1234567);
const Moment kCrash2 = Moment::Of(22, 13, 25);
const Moment kLogOn = Moment::Of(22, 13, 30, 9876543);
const Moment kResponse = Moment::Of(22, 13, 31, 5);
const Moment kVolumes = Moment::Of(22, 13, 32, 9999);
const Moment kAllDone = Moment::Of(22, 13, 33, 10000);

std::string Narrow(const std::wstring& text)
{
    return std::string(text.begin(), text.end());  // paths of the temporary folder are ASCII
}

std::wstring HostName()
{
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 2] = {};
    DWORD size = MAX_COMPUTERNAME_LENGTH + 2;
    EXPECT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, name, &size));
    return name;
}

// The layering service's registry values, in the prefix's own HKLM (the host is
// a separate process, so they cannot be redirected); removed again afterwards.
class LayeringServiceKeys {
public:
    explicit LayeringServiceKeys(const std::wstring& folder)
    {
        SetString(kServiceKey, L"ImagePath", L"\"" + folder + L"\\drovesvc.exe\"", REG_EXPAND_SZ);
        SetString((std::wstring(kServiceKey) + L"\\Parameters").c_str(), L"Manager1",
                  std::wstring(kManager) + L":8443", REG_SZ);
    }
    ~LayeringServiceKeys()
    {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kServiceKey);
        ::RegDeleteKeyW(HKEY_LOCAL_MACHINE, kServiceKey);
    }
    LayeringServiceKeys(const LayeringServiceKeys&) = delete;
    LayeringServiceKeys& operator=(const LayeringServiceKeys&) = delete;

private:
    static void SetString(const wchar_t* subkey, const wchar_t* name, const std::wstring& text, DWORD type)
    {
        HKEY key = nullptr;
        ASSERT_EQ(::RegCreateKeyExW(HKEY_LOCAL_MACHINE, subkey, 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
                  ERROR_SUCCESS);
        EXPECT_EQ(::RegSetValueExW(key, name, 0, type, reinterpret_cast<const BYTE*>(text.c_str()),
                                   static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
        ::RegCloseKey(key);
    }
};

class RecordedRun : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(::CreateDirectoryW((folder_.Path() + L"\\Logs").c_str(), nullptr));
        const std::string log = Narrow(folder_.Path()) + "\\Logs\\drovesvc.log";
        config_ = folder_.WriteFile(L"host.xml", kConfig);
        scenario_ = folder_.WriteFile(L"scenario.xml", R"(<scenario>
  <append file=")" + log + R"(">
    service started
  </append>
  <event channel="Application" publisher="Application Error" id="1000" time=")" + kCrash1.Iso() + R"(">
    Faulting application name: ledger.exe, version: 1.0.0.0
      Exception code: 0xc0000005
  </event>
  <event channel="Application" publisher="Application Error" id="1000" time=")" + kCrash2.Iso() + R"(">Faulting application name: tally.exe</event>
  <query/>
  <event channel="Application" publisher="drovesvc" id="3" time=")" + kLogOn.Iso() + R"(">User is logging in</event>
  <append file=")" + log + R"(">
    Manager status 200 response
    attached MOUNTED-READ;\\fs\tesseras\one.vhdx;t-1
    attached MOUNTED-READ;\\fs\tesseras\two.vhdx;t-2
  </append>
  <event channel="Application" publisher="drovesvc" id="7" time=")" + kResponse.Iso() + R"(">Response 200 from Manager</event>
  <event channel="Application" publisher="drovesvc" id="9" time=")" + kVolumes.Iso() + R"(">New volume event (mounted): disk 2 (VolumeType 2)</event>
  <pause ms="10"/>
  <event channel="Application" publisher="drovesvc" id="14" time=")" + kAllDone.Iso() + R"(">All volumes finished processing</event>
</scenario>
)");
    }

    HostRun Run(std::vector<std::wstring> extra)
    {
        std::vector<std::wstring> arguments = {L"--config", config_, L"--dll", BinFolder() + L"zeph_eventlog.dll",
                                               L"--scenario", scenario_, L"--once"};
        arguments.insert(arguments.end(), extra.begin(), extra.end());
        return RunZephHost(arguments);
    }

    // Nothing but the scenario's own step lines: the provider logged no error or warning.
    static void ExpectOnlyStepLines(const HostRun& run)
    {
        const std::wregex step(LR"(\d\d:\d\d:\d\d\.\d\d\d \[scenario\] step \d+: .*)");
        const auto lines = run.ErrLines();
        EXPECT_EQ(lines.size(), 10u);
        for (const std::wstring& line : lines) {
            EXPECT_TRUE(std::regex_match(line, step)) << ::testing::PrintToString(line);
        }
    }

    std::wstring Crash1() const
    {
        return L"Faulting application name: ledger.exe, version: 1.0.0.0<br />  Exception code: 0xc0000005"
               L"<br />Crash Time: " + kCrash1.CrashTime() + L"<br />Host Name: " + hostName_;
    }
    std::wstring Crash2() const
    {
        return L"Faulting application name: tally.exe<br />Crash Time: " + kCrash2.CrashTime() + L"<br />Host Name: " +
               hostName_;
    }

    TempFolder folder_;
    LayeringServiceKeys keys_{folder_.Path()};
    std::wstring hostName_ = HostName();
    std::wstring config_;
    std::wstring scenario_;
};

TEST_F(RecordedRun, Table)
{
    const HostRun run = Run({});
    EXPECT_EQ(run.exitCode, 0u);
    ExpectOnlyStepLines(run);

    auto lines = run.OutLines();
    const std::wregex header(LR"(Query ([12]) at \d{4}-\d\d-\d\d \d\d:\d\d:\d\d UTC)");
    for (std::wstring& line : lines) {
        line = std::regex_replace(line, header, L"Query $1 at TIME");
    }
    const std::vector<std::wstring> expected = {
        L"Query 1 at TIME",
        L"eventlog|eventlog_appcrash: 3 values",
        L"  appcrash|contained        appcrash|contained  true",
        L"  appcrash|crash_details|*  1                   " + Crash1(),
        L"  appcrash|crash_details|*  2                   " + Crash2(),
        L"eventlog|eventlog_quillon: 1 value",
        L"  quillon|mgr  quillon|mgr  mgr.test.example",
        L"",
        L"Query 2 at TIME",
        L"eventlog|eventlog_appcrash: 0 values",
        L"eventlog|eventlog_quillon: 8 values",
        L"  quillon|logon_timestamp           quillon            " + kLogOn.Table(),
        L"  quillon|logon_response_timestamp  quillon            " + kResponse.Table(),
        L"  quillon|volumes_ready_timestamp   quillon            " + kVolumes.Table(),
        L"  quillon|all_done_timestamp        quillon            " + kAllDone.Table(),
        L"  quillon|mgr                       quillon|mgr        mgr.test.example",
        L"  quillon|instances                 quillon|instances  true",
        L"  quillon|instances|*               t-1                \\\\fs\\tesseras\\one.vhdx",
        L"  quillon|instances|*               t-2                \\\\fs\\tesseras\\two.vhdx",
        L"",
    };
    EXPECT_EQ(lines, expected);
}

TEST_F(RecordedRun, JsonLines)
{
    const HostRun run = Run({L"--json"});
    EXPECT_EQ(run.exitCode, 0u);
    ExpectOnlyStepLines(run);

    auto lines = run.OutLines();
    const std::wregex time(LR"(,"time":"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z"\})");
    for (std::wstring& line : lines) {
        line = std::regex_replace(line, time, L",\"time\":\"TIME\"}");
    }
    const std::wstring crash = L"{\"query\":1,\"metric\":\"eventlog|eventlog_appcrash\",";
    const std::wstring quillon = L"{\"query\":2,\"metric\":\"eventlog|eventlog_quillon\",";
    auto stamp = [&](const wchar_t* key, const Moment& moment) {
        return quillon + L"\"key\":\"quillon|" + key + L"\",\"instance\":\"quillon\",\"type\":\"uint64\"," +
               moment.Json() + L"}";
    };
    const std::vector<std::wstring> expected = {
        crash + L"\"key\":\"appcrash|contained\",\"instance\":\"appcrash|contained\",\"type\":\"string\",\"value\":\"true\"}",
        crash + L"\"key\":\"appcrash|crash_details|*\",\"instance\":\"1\",\"type\":\"string\",\"value\":\"" + Crash1() + L"\"}",
        crash + L"\"key\":\"appcrash|crash_details|*\",\"instance\":\"2\",\"type\":\"string\",\"value\":\"" + Crash2() + L"\"}",
        crash + L"\"result\":\"0x00000000\",\"values\":3,\"time\":\"TIME\"}",
        L"{\"query\":1,\"metric\":\"eventlog|eventlog_quillon\",\"key\":\"quillon|mgr\",\"instance\":\"quillon|mgr\","
        L"\"type\":\"string\",\"value\":\"mgr.test.example\"}",
        L"{\"query\":1,\"metric\":\"eventlog|eventlog_quillon\",\"result\":\"0x00000000\",\"values\":1,\"time\":\"TIME\"}",
        L"{\"query\":2,\"metric\":\"eventlog|eventlog_appcrash\",\"result\":\"0x00000000\",\"values\":0,\"time\":\"TIME\"}",
        stamp(L"logon_timestamp", kLogOn),
        stamp(L"logon_response_timestamp", kResponse),
        stamp(L"volumes_ready_timestamp", kVolumes),
        stamp(L"all_done_timestamp", kAllDone),
        quillon + L"\"key\":\"quillon|mgr\",\"instance\":\"quillon|mgr\",\"type\":\"string\",\"value\":\"mgr.test.example\"}",
        quillon + L"\"key\":\"quillon|instances\",\"instance\":\"quillon|instances\",\"type\":\"string\",\"value\":\"true\"}",
        quillon + L"\"key\":\"quillon|instances|*\",\"instance\":\"t-1\",\"type\":\"string\","
                  L"\"value\":\"\\\\\\\\fs\\\\tesseras\\\\one.vhdx\"}",
        quillon + L"\"key\":\"quillon|instances|*\",\"instance\":\"t-2\",\"type\":\"string\","
                  L"\"value\":\"\\\\\\\\fs\\\\tesseras\\\\two.vhdx\"}",
        quillon + L"\"result\":\"0x00000000\",\"values\":8,\"time\":\"TIME\"}",
    };
    EXPECT_EQ(lines, expected);
}

}  // namespace
}  // namespace zeph::test
