// The table-driven registration code on its own, below a scratch root.
#include "hresult.h"
#include "registry_table.h"
#include "scratch_registry.h"

#include <gtest/gtest.h>

namespace zeph {
namespace {

using test::RegistryTree;
using test::WriteKey;

const RegistryReplacements kReplacements = {{L"NAME", L"zeph"}, {L"PATH", L"C:\\bin\\zeph.dll"}};

constexpr RegistryRow kRows[] = {
    {L"Shared", RegistryRemoval::NoRemove},
    {L"Shared\\%NAME%", RegistryRemoval::Normal, L"", L"%PATH%"},
    {L"Shared\\%NAME%", RegistryRemoval::Normal, L"Share", L"100%%"},
    {L"Owned", RegistryRemoval::ForceRemove, L"", L"owned"},
    {L"Owned\\Child", RegistryRemoval::Normal, L"Value", L"%NAME%"},
};

HRESULT ExpansionError(const wchar_t* text)
{
    try {
        ExpandReplacements(text, kReplacements);
    } catch (const HResultError& error) {
        return error.Code();
    }
    return S_OK;
}

TEST(ReplacementTest, VariablesAndPercentSignsAreReplacedAndUnknownOnesRefused)
{
    EXPECT_EQ(ExpandReplacements(L"%NAME%:%PATH%, 50%% done", kReplacements), L"zeph:C:\\bin\\zeph.dll, 50% done");
    EXPECT_EQ(ExpandReplacements(L"plain", kReplacements), L"plain");
    EXPECT_EQ(ExpansionError(L"%OTHER%"), E_INVALIDARG);
    EXPECT_EQ(ExpansionError(L"%NAME"), E_INVALIDARG);
    EXPECT_EQ(ExpansionError(L"%name%"), E_INVALIDARG);  // names are exact
}

class RegistryTableTest : public ::testing::Test {
protected:
    test::ScratchRegistry registry_{L"module-table"};
    HKEY Root() const { return registry_.CurrentUser(); }
};

TEST_F(RegistryTableTest, UnregisteringRemovesOnlyWhatTheTableOwns)
{
    ASSERT_EQ(RegisterTable(Root(), kRows, kReplacements), S_OK);
    EXPECT_EQ(RegistryTree(Root()), (std::set<std::wstring>{
                                        L"Shared",
                                        L"Shared\\zeph",
                                        L"Shared\\zeph [@] = C:\\bin\\zeph.dll",
                                        L"Shared\\zeph [Share] = 100%",
                                        L"Owned",
                                        L"Owned [@] = owned",
                                        L"Owned\\Child",
                                        L"Owned\\Child [Value] = zeph",
                                    }));
    WriteKey(Root(), L"Shared\\zeph", L"Foreign", L"kept");
    WriteKey(Root(), L"Owned\\Child\\Foreign");
    ASSERT_EQ(UnregisterTable(Root(), kRows, kReplacements), S_OK);
    EXPECT_EQ(RegistryTree(Root()), (std::set<std::wstring>{
                                        L"Shared",
                                        L"Shared\\zeph",
                                        L"Shared\\zeph [Foreign] = kept",
                                    }));

    // A key that only held the table's values goes once the foreign value is gone.
    WriteKey(Root(), L"Shared\\zeph", L"", L"again");
    ASSERT_EQ(::RegDeleteKeyValueW(Root(), L"Shared\\zeph", L"Foreign"), ERROR_SUCCESS);
    ASSERT_EQ(UnregisterTable(Root(), kRows, kReplacements), S_OK);
    EXPECT_EQ(RegistryTree(Root()), std::set<std::wstring>{L"Shared"});
}

}  // namespace
}  // namespace zeph
