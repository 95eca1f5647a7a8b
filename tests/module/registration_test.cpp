// Registration through the DLL's exports, per machine and per user, with the
// classes roots redirected to scratch keys.
#include "loaded_server.h"
#include "scratch_registry.h"

#include <gtest/gtest.h>

#include <set>
#include <string>

namespace zeph::test {
namespace {

constexpr wchar_t kUserClasses[] = L"Software\\Classes";
constexpr wchar_t kTypeLibKey[] = L"TypeLib\\{BA21C1A6-3183-4E99-A464-6DF4178B7249}";
constexpr LCID kGerman = 0x0407;

// The top-level keys that the two registration tables write.
const std::set<std::wstring> kTableKeys = {L"AppID", L"CLSID", L"ZephAgent.EventLogProvider",
                                           L"ZephAgent.EventLogProvider.1"};

// The shared parents that unregistration keeps.
const std::set<std::wstring> kKeptParents = {L"AppID", L"CLSID"};

std::set<std::wstring> Registered(const std::wstring& dllPath)
{
    const std::wstring clsid = L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}";
    return {
        L"AppID",
        L"AppID\\{44D2B20B-C31C-43B7-A2E6-B5FA579BFDF2}",
        L"AppID\\{44D2B20B-C31C-43B7-A2E6-B5FA579BFDF2} [@] = zeph_eventlog",
        L"AppID\\zeph_eventlog.dll",
        L"AppID\\zeph_eventlog.dll [AppID] = {44D2B20B-C31C-43B7-A2E6-B5FA579BFDF2}",
        L"ZephAgent.EventLogProvider.1",
        L"ZephAgent.EventLogProvider.1 [@] = Zeph Event Log Provider Class",
        L"ZephAgent.EventLogProvider.1\\CLSID",
        L"ZephAgent.EventLogProvider.1\\CLSID [@] = {DAF69464-F4E2-40C0-BCC3-A30E819975F0}",
        L"ZephAgent.EventLogProvider",
        L"ZephAgent.EventLogProvider [@] = Zeph Event Log Provider Class",
        L"ZephAgent.EventLogProvider\\CLSID",
        L"ZephAgent.EventLogProvider\\CLSID [@] = {DAF69464-F4E2-40C0-BCC3-A30E819975F0}",
        L"ZephAgent.EventLogProvider\\CurVer",
        L"ZephAgent.EventLogProvider\\CurVer [@] = ZephAgent.EventLogProvider.1",
        L"CLSID",
        clsid,
        clsid + L" [@] = Zeph Event Log Provider Class",
        clsid + L"\\ProgID",
        clsid + L"\\ProgID [@] = ZephAgent.EventLogProvider.1",
        clsid + L"\\VersionIndependentProgID",
        clsid + L"\\VersionIndependentProgID [@] = ZephAgent.EventLogProvider",
        clsid + L"\\Programmable",
        clsid + L"\\InprocServer32",
        clsid + L"\\InprocServer32 [@] = " + dllPath,
        clsid + L"\\InprocServer32 [ThreadingModel] = Both",
        clsid + L"\\TypeLib",
        clsid + L"\\TypeLib [@] = {BA21C1A6-3183-4E99-A464-6DF4178B7249}",
    };
}

class RegistrationTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(server_.Loaded());
        savedLocale_ = ::GetThreadLocale();
        ASSERT_TRUE(::SetThreadLocale(kGerman));
        ASSERT_EQ(::GetThreadLocale(), kGerman);
    }
    void TearDown() override { ::SetThreadLocale(savedLocale_); }

    std::set<std::wstring> MachineTables() const { return RegistryTree(registry_.ClassesRoot(), L"", kTableKeys); }
    std::set<std::wstring> UserTables() const
    {
        return RegistryTree(registry_.CurrentUser(), kUserClasses, kTableKeys);
    }
    std::set<std::wstring> Expected() const { return Registered(server_.Path()); }

    // The registered path of the type library below root, or empty.
    static std::wstring TypeLibPath(HKEY root)
    {
        for (const std::wstring& line : RegistryTree(root, kTypeLibKey)) {
            if (line.rfind(L"1.0\\0\\win64 [@] = ", 0) == 0) {
                return line.substr(line.find(L" = ") + 3);
            }
        }
        return {};
    }

    ScratchRegistry registry_{L"module-registration"};
    LoadedServer server_;
    LCID savedLocale_ = 0;
};

TEST_F(RegistrationTest, RegisterServerWritesBothTablesAndTheTypeLibraryBelowTheClassesRoot)
{
    // A stale class key is replaced whole.
    const std::wstring clsid = L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}";
    WriteKey(registry_.ClassesRoot(), clsid + L"\\InprocServer32", L"ThreadingModel", L"Apartment");
    WriteKey(registry_.ClassesRoot(), clsid + L"\\LocalServer32", L"", L"C:\\old\\zeph.exe");

    ASSERT_EQ(server_.Register(), S_OK);
    EXPECT_EQ(::GetThreadLocale(), kGerman);

    EXPECT_EQ(MachineTables(), Expected());
    EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), server_.Path());
    EXPECT_EQ(RegistryTree(registry_.CurrentUser()), std::set<std::wstring>{});

    // Registering twice gives the same picture.
    ASSERT_EQ(server_.Register(), S_OK);
    EXPECT_EQ(MachineTables(), Expected());
}

TEST_F(RegistrationTest, UnregisterServerKeepsSharedParentsAndOtherClassesAndRemovesTheRest)
{
    WriteKey(registry_.ClassesRoot(), L"CLSID\\{11111111-2222-3333-4444-555555555555}", L"", L"other class");
    WriteKey(registry_.ClassesRoot(), L"AppID\\{11111111-2222-3333-4444-555555555555}", L"", L"other app");
    ASSERT_EQ(server_.Register(), S_OK);
    // Anything below the class's own CLSID key goes with it.
    WriteKey(registry_.ClassesRoot(), L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}\\Implemented Categories");

    ASSERT_EQ(server_.Unregister(), S_OK);
    EXPECT_EQ(::GetThreadLocale(), kGerman);
    EXPECT_EQ(MachineTables(), (std::set<std::wstring>{
                                   L"AppID",
                                   L"AppID\\{11111111-2222-3333-4444-555555555555}",
                                   L"AppID\\{11111111-2222-3333-4444-555555555555} [@] = other app",
                                   L"CLSID",
                                   L"CLSID\\{11111111-2222-3333-4444-555555555555}",
                                   L"CLSID\\{11111111-2222-3333-4444-555555555555} [@] = other class",
                               }));
    EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), L"");

    // Nothing left to remove is no failure.
    EXPECT_EQ(server_.Unregister(), S_OK);
}

TEST_F(RegistrationTest, PerUserInstallWritesBelowTheCurrentUsersClassesAndStaysPerUser)
{
    ASSERT_EQ(server_.Install(TRUE, L"USER"), S_OK);
    EXPECT_EQ(::GetThreadLocale(), kGerman);

    std::set<std::wstring> expected = Expected();
    EXPECT_EQ(UserTables(), expected);
    EXPECT_EQ(MachineTables(), std::set<std::wstring>{});
    if (RunningOnWine()) {
        // Wine registers a type library machine-wide even when asked per user.
        EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), server_.Path());
    } else {
        EXPECT_EQ(TypeLibPath(registry_.CurrentUser()), L"");
        unique_hkey userClasses;
        ASSERT_EQ(::RegOpenKeyExW(registry_.CurrentUser(), kUserClasses, 0, KEY_READ, userClasses.put()),
                  ERROR_SUCCESS);
        EXPECT_EQ(TypeLibPath(userClasses.get()), server_.Path());
    }

    // The switch holds for the rest of the process, the plain exports included.
    ASSERT_EQ(server_.Register(), S_OK);
    EXPECT_EQ(MachineTables(), std::set<std::wstring>{});

    ASSERT_EQ(server_.Install(FALSE, L"user"), S_OK);
    EXPECT_EQ(::GetThreadLocale(), kGerman);
    EXPECT_EQ(UserTables(), kKeptParents);
    EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), L"");
}

TEST_F(RegistrationTest, InstallWithAnyOtherCommandLineRegistersMachineWide)
{
    ASSERT_EQ(server_.Install(TRUE, L"userx"), S_OK);
    EXPECT_EQ(MachineTables(), Expected());
    EXPECT_EQ(UserTables(), std::set<std::wstring>{});

    // Uninstalling without a command line is unregistering.
    ASSERT_EQ(server_.Install(FALSE, nullptr), S_OK);
    EXPECT_EQ(::GetThreadLocale(), kGerman);
    EXPECT_EQ(MachineTables(), kKeptParents);

    ASSERT_EQ(server_.Install(TRUE, L"use"), S_OK);
    EXPECT_EQ(MachineTables(), Expected());
    ASSERT_EQ(server_.Install(FALSE, L""), S_OK);
    EXPECT_EQ(MachineTables(), kKeptParents);
    EXPECT_EQ(UserTables(), std::set<std::wstring>{});
}

TEST_F(RegistrationTest, FailedRegistrationRestoresTheLocaleAndOnlyInstallUndoesIt)
{
    // Below a volatile CLSID key the class key cannot be created, after the
    // AppID table and the ProgIDs have been written.
    WriteKey(registry_.ClassesRoot(), L"CLSID", nullptr, L"", REG_OPTION_VOLATILE);
    const HRESULT mustBeVolatile = HRESULT_FROM_WIN32(ERROR_CHILD_MUST_BE_VOLATILE);

    EXPECT_EQ(server_.Register(), mustBeVolatile);
    EXPECT_EQ(::GetThreadLocale(), kGerman);
    std::set<std::wstring> leftBehind;
    for (const std::wstring& line : Expected()) {
        if (line.rfind(L"CLSID\\", 0) != 0) {
            leftBehind.insert(line);
        }
    }
    EXPECT_EQ(MachineTables(), leftBehind);

    ASSERT_EQ(server_.Unregister(), S_OK);
    EXPECT_EQ(MachineTables(), kKeptParents);

    EXPECT_EQ(server_.Install(TRUE, nullptr), mustBeVolatile);
    EXPECT_EQ(::GetThreadLocale(), kGerman);
    EXPECT_EQ(MachineTables(), kKeptParents);
    EXPECT_EQ(TypeLibPath(registry_.ClassesRoot()), L"");
}

}  // namespace
}  // namespace zeph::test
