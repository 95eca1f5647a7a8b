#include "crash_text.h"

#include "diagnostics.h"

namespace zeph {

namespace {

constexpr std::wstring_view kLineEnd = L"\r\n";
constexpr std::wstring_view kHtmlBreak = L"<br />";
constexpr wchar_t kCrashTimeFormat[] = L"<br />Crash Time: %d-%02d-%02d %02d:%02d:%02d";

}  // namespace

std::wstring ReplaceLineBreaks(std::wstring_view message)
{
    std::wstring text;
    text.reserve(message.size());
    size_t start = 0;
    for (size_t found = message.find(kLineEnd); found != std::wstring_view::npos;
         found = message.find(kLineEnd, start)) {
        text.append(message, start, found - start);
        text.append(kHtmlBreak);
        start = found + kLineEnd.size();
    }
    text.append(message, start);
    return text;
}

std::wstring FormatCrashTime(ULONGLONG fileTime)
{
    FILETIME time;
    time.dwLowDateTime = static_cast<DWORD>(fileTime);
    time.dwHighDateTime = static_cast<DWORD>(fileTime >> 32);
    SYSTEMTIME utc = {};
    ::FileTimeToSystemTime(&time, &utc);
    return FormatString(kCrashTimeFormat, utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute, utc.wSecond);
}

}  // namespace zeph
