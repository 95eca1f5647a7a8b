// Registration through the DLL's exports, per machine and per user, with the
// classes roots redirected to scratch keys.
#include "module_env.h"

#include <gtest/gtest.h>

namespace zeph::test {
namespace {

using Lines = std::set<std::wstring>;

constexpr wchar_t kUserClasses[] = L"Software\\Classes";
constexpr wchar_t kTypeLibKey[] = L"TypeLib\\{BA21C1A6-3183-4E99-A464-6DF4178B7249}";
constexpr wchar_t kClsidKey[] = L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}";
constexpr LCID kGerman = 0x0407;
const Lines kTableKeys = {L"AppID", L"CLSID", L"ZephAgent.EventLogProvider", L"ZephAgent.EventLogProvider.1"};
const Lines kKeptParents = {L"AppID", L"CLSID"};  // shared, so unregistering keeps them

// Every value line, and every key: those holding a value are taken from its line.
Lines Registered(const std::wstring& dllPath)
{
    const std::wstring clsid = kClsidKey;
    Lines lines = {
        L"AppID",
        L"AppID\\{44D2B20B-C31C-43B7-A2E6-B5FA579BFDF2} [@] = zeph_eventlog",
        L"AppID\\zeph_eventlog.dll [AppID] = {44D2B20B-C31C-43B7-A2E6-B5FA579BFDF2}",
        L"ZephAgent.EventLogProvider.1 [@] = Zeph Event Log Provider Class",
        L"ZephAgent.EventLogProvider.1\\CLSID [@] = {DAF69464-F4E2-40C0-BCC3-A30E819975F0}",
        L"ZephAgent.EventLogProvider [@] = Zeph Event Log Provider Class",
        L"ZephAgent.EventLogProvider\\CLSID [@] = {DAF69464-F4E2-40C0-BCC3-A30E819975F0}",
        L"ZephAgent.EventLogProvider\\CurVer [@] = ZephAgent.EventLogProvider.1",
        L"CLSID",
        clsid + L" [@] = Zeph Event Log Provider Class",
        clsid + L"\\ProgID [@] = ZephAgent.EventLogProvider.1",
        clsid + L"\\VersionIndependentProgID [@] = ZephAgent.EventLogProvider",
        clsid + L"\\Programmable",
        clsid + L"\\InprocServer32 [@] = " + dllPath,
        clsid + L"\\InprocServer32 [ThreadingModel] = Both",
        clsid + L"\\TypeLib [@] = {BA21C1A6-3183-4E99-A464-6DF4178B7249}",
    };
    for (const std::wstring& line : Lines(lines)) {
        lines.insert(line.substr(0, line.find(L" [")));
    }
    return lines;
}

// Every export runs with the caller's thread locale set to German: whatever the
// DLL switches to must be back when it returns, failures included.
class RegistrationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server_.Loaded());
        savedLocale_ = ::GetThreadLocale();
        ASSERT_TRUE(::SetThreadLocale(kGerman));
    }
    void TearDown() override
    {
        EXPECT_EQ(::GetThreadLocale(), kGerman) << "the thread locale was not restored";
        ::SetThreadLocale(savedLocale_);
    }

    Lines MachineTables() const { return RegistryTree(registry_.ClassesRoot(), L"", kTableKeys); }
    Lines UserTables() const { return RegistryTree(registry_.CurrentUser(), kUserClasses, kTableKeys); }
    Lines Expected() const { return Registered(server_.Path()); }
    // The type library's registered path below root, or empty.
    static std::wstring TypeLibPath(HKEY root)
    {
        for (const std::wstring& line : RegistryTree(root, kTypeLibKey)) {
            if (line.starts_with(L"1.0\\0\\win64 [@] = ")) {
                return line.substr(line.find(L" = ") + 3);
            }
        }
        return {};
    }

    ScratchRegistry registry_;
    LoadedServer server_;
    LCID savedLocale_ = 0;
};

TEST_F(RegistrationTest, RegisterWritesBothTablesAndTheTypeLibraryAndUnregisterRemovesOnlyThem)
{
    // A stale class key is replaced whole.
    WriteKey(registry_.ClassesRoot(), kClsidKey + std::wstring(L"\\InprocServer32"), L"ThreadingModel", L"Apartment");
    WriteKey(registry_.ClassesRoot(), kClsidKey + std::wstring(L"\\LocalServer32"), L"", L"C:\\old\\zeph.exe");
    for (int round = 0; round < 2; ++round) {  // registering twice gives the same picture
        ASSERT_EQ(server_.Register(), S_OK);
        EXPECT_EQ(MachineTables(), Expected());
    }
    EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), server_.Path());
    EXPECT_EQ(RegistryTree(registry_.CurrentUser()), Lines{});

    // Unregistering keeps the shared parents and other classes.
    WriteKey(registry_.ClassesRoot(), L"CLSID\\{11111111-2222-3333-4444-555555555555}", L"", L"other class");
    WriteKey(registry_.ClassesRoot(), L"AppID\\{11111111-2222-3333-4444-555555555555}", L"", L"other app");
    WriteKey(registry_.ClassesRoot(), kClsidKey + std::wstring(L"\\Implemented Categories"));  // goes with the class

    ASSERT_EQ(server_.Unregister(), S_OK);
    EXPECT_EQ(MachineTables(), (Lines{L"AppID", L"AppID\\{11111111-2222-3333-4444-555555555555}",
                                      L"AppID\\{11111111-2222-3333-4444-555555555555} [@] = other app", L"CLSID",
                                      L"CLSID\\{11111111-2222-3333-4444-555555555555}",
                                      L"CLSID\\{11111111-2222-3333-4444-555555555555} [@] = other class"}));
    EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), L"");
    EXPECT_EQ(server_.Unregister(), S_OK);  // nothing left to remove is no failure
}

TEST_F(RegistrationTest, PerUserInstallWritesBelowTheUsersClassesAndStaysPerUser)
{
    ASSERT_EQ(server_.Install(TRUE, L"userx"), S_OK);  // only "user" (any case) means per user
    EXPECT_EQ(MachineTables(), Expected());
    ASSERT_EQ(server_.Install(FALSE, L"userx"), S_OK);
    EXPECT_EQ(MachineTables(), kKeptParents);

    ASSERT_EQ(server_.Install(TRUE, L"USER"), S_OK);
    EXPECT_EQ(UserTables(), Expected());
    EXPECT_EQ(MachineTables(), kKeptParents);
    if (RunningOnWine()) {
        // Wine registers a type library machine-wide even when asked per user.
        EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), server_.Path());
    } else {
        unique_hkey userClasses;
        ASSERT_EQ(::RegOpenKeyExW(registry_.CurrentUser(), kUserClasses, 0, KEY_READ, userClasses.put()),
                  ERROR_SUCCESS);
        EXPECT_EQ(TypeLibPath(userClasses.get()), server_.Path());
    }

    // The switch holds for the rest of the process, the plain exports included.
    ASSERT_EQ(server_.Register(), S_OK);
    EXPECT_EQ(MachineTables(), kKeptParents);
    ASSERT_EQ(server_.Install(FALSE, L"user"), S_OK);
    EXPECT_EQ(UserTables(), kKeptParents);
    EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), L"");
}

TEST_F(RegistrationTest, FailedRegistrationLeavesItsPartsAndOnlyInstallUndoesThem)
{
    // Below a volatile CLSID key the class key cannot be created, after the
    // AppID table and the ProgIDs have been written.
    WriteKey(registry_.ClassesRoot(), L"CLSID", nullptr, L"", REG_OPTION_VOLATILE);
    const HRESULT mustBeVolatile = HRESULT_FROM_WIN32(ERROR_CHILD_MUST_BE_VOLATILE);

    EXPECT_EQ(server_.Register(), mustBeVolatile);
    Lines leftBehind = Expected();
    std::erase_if(leftBehind, [](const std::wstring& line) { return line.starts_with(L"CLSID\\"); });
    EXPECT_EQ(MachineTables(), leftBehind);
    ASSERT_EQ(server_.Unregister(), S_OK);
    EXPECT_EQ(MachineTables(), kKeptParents);

    EXPECT_EQ(server_.Install(TRUE, nullptr), mustBeVolatile);
    EXPECT_EQ(MachineTables(), kKeptParents);
    EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), L"");
}

}  // namespace
}  // namespace zeph::test
