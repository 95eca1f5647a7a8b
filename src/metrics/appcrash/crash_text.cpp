#include "appcrash/crash_text.h"

#include "win/code_unit_search.h"
#include "win/file_time.h"

namespace zeph {

namespace {

constexpr std::wstring_view kHtmlBreak = L"<br />";
// The crash time reads "<br />Crash Time: %d-%02d-%02d %02d:%02d:%02d" (year,
// month, day, hour, minute, second). It is put together by hand: it is made
// for every crash on the event log's thread, and the runtime's formatter (one
// pass to measure, one to write) cost as much as all the rest of the text.
constexpr std::wstring_view kCrashTimePrefix = L"<br />Crash Time: ";
constexpr size_t kCrashTimeLength = 37;  // with a four-digit year

// Calls run(first, count) for each stretch of message between "\r\n" pairs,
// in order, and lineBreak() for each pair between two stretches.
template <typename Run, typename LineBreak>
void SplitAtLineBreaks(std::wstring_view message, Run&& run, LineBreak&& lineBreak)
{
    const wchar_t* const end = message.data() + message.size();
    const wchar_t* stretch = message.data();
    // Every message is scanned twice on the event log's thread (to size the
    // text, then to fill it): the search goes eight units at a time.
    for (const wchar_t* at = FindCodeUnit(stretch, end, L'\r'); end - at > 1; at = FindCodeUnit(at + 1, end, L'\r')) {
        if (at[1] == L'\n') {
            run(stretch, static_cast<size_t>(at - stretch));
            lineBreak();
            stretch = at + 2;
            ++at;  // the next search starts after the '\n'
        }
    }
    run(stretch, static_cast<size_t>(end - stretch));
}

// value in decimal, zero-padded to at least width digits: printf's "%0<width>d"
// for the non-negative values of a SYSTEMTIME.
void AppendDecimal(std::wstring& text, unsigned value, size_t width)
{
    wchar_t digits[10];
    size_t count = 0;
    do {
        digits[count++] = static_cast<wchar_t>(L'0' + value % 10);
        value /= 10;
    } while (value != 0);
    while (count < width) {
        digits[count++] = L'0';
    }
    while (count > 0) {
        text.push_back(digits[--count]);
    }
}

template <typename Text>
void AppendReplaced(Text& text, std::wstring_view message)
{
    SplitAtLineBreaks(
        message, [&text](const wchar_t* first, size_t count) { text.append(first, count); },
        [&text] { text.append(kHtmlBreak); });
}

}  // namespace

size_t ReplacedLineBreaksLength(std::wstring_view message) noexcept
{
    size_t breaks = 0;
    SplitAtLineBreaks(
        message, [](const wchar_t*, size_t) {}, [&breaks] { ++breaks; });
    return message.size() + breaks * (kHtmlBreak.size() - 2);
}

void AppendReplacingLineBreaks(std::wstring& text, std::wstring_view message)
{
    AppendReplaced(text, message);
}

void AppendReplacingLineBreaks(CrashText& text, std::wstring_view message)
{
    AppendReplaced(text, message);
}

std::wstring ReplaceLineBreaks(std::wstring_view message)
{
    std::wstring text;
    text.reserve(ReplacedLineBreaksLength(message));
    AppendReplacingLineBreaks(text, message);
    return text;
}

std::wstring FormatCrashTime(ULONGLONG fileTime)
{
    std::wstring text;
    text.reserve(kCrashTimeLength);
    AppendCrashTime(text, fileTime);
    return text;
}

void AppendCrashTime(std::wstring& text, ULONGLONG fileTime)
{
    const FILETIME time = FileTimeOfCount(fileTime);
    SYSTEMTIME utc = {};
    ::FileTimeToSystemTime(&time, &utc);

    text.append(kCrashTimePrefix);
    AppendDecimal(text, utc.wYear, 1);
    text.push_back(L'-');
    AppendDecimal(text, utc.wMonth, 2);
    text.push_back(L'-');
    AppendDecimal(text, utc.wDay, 2);
    text.push_back(L' ');
    AppendDecimal(text, utc.wHour, 2);
    text.push_back(L':');
    AppendDecimal(text, utc.wMinute, 2);
    text.push_back(L':');
    AppendDecimal(text, utc.wSecond, 2);
}

}  // namespace zeph
