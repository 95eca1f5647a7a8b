#include "crash_text.h"

#include <gtest/gtest.h>

#include <random>

namespace zeph {
namespace {

TEST(ReplaceLineBreaks, ReplacesOnlyCarriageReturnLineFeedPairs)
{
    EXPECT_EQ(ReplaceLineBreaks(L"A\r\nB\r\n"), L"A<br />B<br />");
    EXPECT_EQ(ReplaceLineBreaks(L"A\n\rB"), L"A\n\rB");
    EXPECT_EQ(ReplaceLineBreaks(L"\r\r\n\n"), L"\r<br />\n");
    EXPECT_EQ(ReplaceLineBreaks(L"\r\n\r\n"), L"<br /><br />");
    EXPECT_EQ(ReplaceLineBreaks(L"lone\rcr and lone\nlf"), L"lone\rcr and lone\nlf");
    EXPECT_EQ(ReplaceLineBreaks(L""), L"");
    EXPECT_EQ(ReplaceLineBreaks(L"\r"), L"\r");
}

// The obvious quadratic model: find and replace in place from the start.
std::wstring ReplaceModel(std::wstring text)
{
    for (size_t at = text.find(L"\r\n"); at != std::wstring::npos; at = text.find(L"\r\n", at + 6)) {
        text.replace(at, 2, L"<br />");
    }
    return text;
}

TEST(ReplaceLineBreaks, AgreesWithTheModelOnRandomTexts)
{
    std::mt19937 random(20261121);
    const wchar_t alphabet[] = {L'\r', L'\n', L'a', L'<', L' '};
    for (int round = 0; round < 5000; ++round) {
        std::wstring text(random() % 40, L' ');
        for (wchar_t& c : text) {
            c = alphabet[random() % 5];
        }
        ASSERT_EQ(ReplaceLineBreaks(text), ReplaceModel(text)) << "round " << round;
    }
}

TEST(FormatCrashTime, PadsEverythingButTheYear)
{
    FILETIME time;
    SYSTEMTIME utc = {2021, 3, 0, 7, 4, 5, 9, 999};
    ASSERT_TRUE(::SystemTimeToFileTime(&utc, &time));
    const ULONGLONG value = (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    EXPECT_EQ(FormatCrashTime(value), L"<br />Crash Time: 2021-03-07 04:05:09");
    EXPECT_EQ(FormatCrashTime(0), L"<br />Crash Time: 1601-01-01 00:00:00");

    SYSTEMTIME distant = {30000, 12, 0, 31, 23, 59, 58, 0};
    ASSERT_TRUE(::SystemTimeToFileTime(&distant, &time));
    EXPECT_EQ(FormatCrashTime((static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime),
              L"<br />Crash Time: 30000-12-31 23:59:58");
}

}  // namespace
}  // namespace zeph
