#include "layering_env.h"
#include "registry_string.h"

#include <gtest/gtest.h>

namespace zeph {
namespace {

constexpr wchar_t kKey[] = L"SOFTWARE\\ZephLayering";

TEST(ReadRegistryStringTest, AcceptsOnlyTerminatedStringsOfEvenLength)
{
    test::RedirectedMachineKey registry;
    const DWORD number = 42;
    registry.SetValue(kKey, L"Number", REG_DWORD, &number, sizeof number);
    registry.SetValue(kKey, L"Odd", REG_SZ, L"ab", 3);
    // The source goes on with a non-zero unit: the registry would otherwise
    // count the terminator in for us.
    registry.SetValue(kKey, L"Unterminated", REG_SZ, L"abcd", 6);
    registry.SetValue(kKey, L"NoData", REG_SZ, L"", 0);
    registry.SetValue(kKey, L"Multi", REG_MULTI_SZ, L"a\0b\0", 10);
    registry.SetString(kKey, L"Plain", L"host:1234");
    registry.SetString(kKey, L"Expand", L"%SystemRoot%\\host", REG_EXPAND_SZ);
    registry.SetValue(kKey, L"Embedded", REG_SZ, L"ab\0cd", 12);

    const struct {
        const wchar_t* key;
        const wchar_t* name;
        HRESULT result;
        const wchar_t* text;  // what out holds afterwards
    } cases[] = {
        {kKey, L"Number", static_cast<HRESULT>(0x8007000D), L"untouched"},
        {kKey, L"Odd", static_cast<HRESULT>(0x8007000D), L"untouched"},
        {kKey, L"Unterminated", static_cast<HRESULT>(0x8007000D), L"untouched"},
        {kKey, L"NoData", static_cast<HRESULT>(0x8007000D), L"untouched"},
        {kKey, L"Multi", static_cast<HRESULT>(0x8007000D), L"untouched"},
        {kKey, L"Missing", static_cast<HRESULT>(0x80070002), L"untouched"},
        {L"SOFTWARE\\ZephLayeringMissing", L"Plain", static_cast<HRESULT>(0x80070002), L"untouched"},
        {kKey, L"Plain", S_OK, L"host:1234"},
        {kKey, L"Expand", S_OK, L"%SystemRoot%\\host"},
        {kKey, L"Embedded", S_OK, L"ab"},
    };
    for (const auto& c : cases) {
        std::wstring out = L"untouched";
        EXPECT_EQ(ReadRegistryString(HKEY_LOCAL_MACHINE, c.key, c.name, out), c.result) << c.name;
        EXPECT_EQ(out, c.text) << c.name;
    }
}

}  // namespace
}  // namespace zeph
