// How scenario files spell text blocks and moments.
#include "scenario.h"

#include <gtest/gtest.h>

namespace zeph::host {
namespace {

using Lines = std::vector<std::wstring>;

TEST(ScenarioText, BlockLinesDropFramingAndCommonIndentation)
{
    // As written between an indented opening and closing tag.
    EXPECT_EQ(BlockLines(L"\n      first\n        second\n\n      third   \n    "),
              (Lines{L"first", L"  second", L"", L"third"}));
    // Line ends of any style; tabs count as indentation.
    EXPECT_EQ(BlockLines(L"\r\n\ta\r\n\t\tb\r\tc\r\n"), (Lines{L"a", L"\tb", L"c"}));
    // Inline text is one line as it stands.
    EXPECT_EQ(BlockLines(L"User is logging in"), (Lines{L"User is logging in"}));
    EXPECT_EQ(BlockLines(L"  two  words"), (Lines{L"two  words"}));
    // Nothing, or only blanks: no lines at all.
    EXPECT_EQ(BlockLines(L""), Lines{});
    EXPECT_EQ(BlockLines(L"\n   \n  "), Lines{});
}

TEST(ScenarioText, UtcTimesToFileTime)
{
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
        EXPECT_FALSE(ParseUtcTime(bad).has_value()) << ::testing::PrintToString(std::wstring(bad));
    }
}

}  // namespace
}  // namespace zeph::host
