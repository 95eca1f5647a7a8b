#include "appcrash/crash_text.h"

#include "win/file_time.h"

#include <algorithm>
#include <bit>
#include <cstddef>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define ZEPH_CRASH_TEXT_SSE2 1
#endif

namespace zeph {

namespace {

constexpr std::wstring_view kHtmlBreak = L"<br />";
// The crash time reads "<br />Crash Time: %d-%02d-%02d %02d:%02d:%02d" (year,
// month, day, hour, minute, second). It is put together by hand: it is made
// for every crash on the event log's thread, and the runtime's formatter (one
// pass to measure, one to write) cost as much as all the rest of the text.
constexpr std::wstring_view kCrashTimePrefix = L"<br />Crash Time: ";
constexpr size_t kCrashTimeLength = 37;     // with a four-digit year
constexpr size_t kMostDateTimeLength = 20;  // "YYYYY-MM-DD hh:mm:ss": a SYSTEMTIME's year has five digits at most

// Writes message with its "\r\n" pairs replaced at to, up to limit (at
// least message.size() units away); returns the end of what it wrote, or
// nullptr when the text would not fit.
// Eight units at a time (SSE2, every x64 processor): every crash message is
// copied so on the event log's thread, and a copy call per line, as the
// runtime's searches and appends made it, kept the event path's crash figure
// above its goal.
wchar_t* WriteReplacingLineBreaks(wchar_t* to, const wchar_t* limit, std::wstring_view message) noexcept
{
    const wchar_t* from = message.data();
    const wchar_t* const end = from + message.size();
    // Nothing but a line break grows the text: there is room for the rest
    // of the message as it is, and the room left over pays for the breaks.
    const auto roomForBreak = [&] {
        return (limit - to) - (end - from) >= static_cast<ptrdiff_t>(kHtmlBreak.size() - 2);
    };
#if ZEPH_CRASH_TEXT_SSE2
    static_assert(sizeof(wchar_t) == 2, "UTF-16 code units");
    const __m128i cr = _mm_set1_epi16(static_cast<short>(L'\r'));
    while (end - from >= 8) {
        // A chunk is stored whole even when a '\r' cuts it short: there is
        // room for the rest of the message, and what follows the '\r' is
        // written again.
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(to), chunk);
        const auto crs = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(chunk, cr)));
        if (crs == 0) {
            from += 8;
            to += 8;
            continue;
        }
        const int before = std::countr_zero(crs) / 2;  // two mask bits per unit
        from += before;
        to += before;
        if (end - from > 1 && from[1] == L'\n') {
            if (!roomForBreak()) {
                return nullptr;
            }
            to = std::copy(kHtmlBreak.begin(), kHtmlBreak.end(), to);
            from += 2;
        } else {
            ++from;  // a lone '\r', stored with its chunk
            ++to;
        }
    }
#endif
    while (from != end) {
        if (from[0] == L'\r' && end - from > 1 && from[1] == L'\n') {
            if (!roomForBreak()) {
                return nullptr;
            }
            to = std::copy(kHtmlBreak.begin(), kHtmlBreak.end(), to);
            from += 2;
        } else {
            *to++ = *from++;
        }
    }
    return to;
}

// value in decimal, zero-padded to at least width digits, written at to:
// printf's "%0<width>d" for the non-negative values of a SYSTEMTIME.
wchar_t* WriteDecimal(wchar_t* to, unsigned value, size_t width) noexcept
{
    if (width == 2 && value < 100) {  // all but the year
        to[0] = static_cast<wchar_t>(L'0' + value / 10);
        to[1] = static_cast<wchar_t>(L'0' + value % 10);
        return to + 2;
    }
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
        *to++ = digits[--count];
    }
    return to;
}

}  // namespace

size_t ReplacedLineBreaksLength(std::wstring_view message) noexcept
{
    size_t breaks = 0;
    for (size_t at = message.find(L"\r\n"); at != std::wstring_view::npos; at = message.find(L"\r\n", at + 2)) {
        ++breaks;
    }
    return message.size() + breaks * (kHtmlBreak.size() - 2);
}

std::wstring ReplaceLineBreaks(std::wstring_view message)
{
    std::wstring text(ReplacedLineBreaksLength(message), L'\0');
    WriteReplacingLineBreaks(text.data(), text.data() + text.size(), message);
    return text;
}

void AssignDetailText(CrashText& text, std::wstring_view message, std::wstring_view crashTime,
                      std::wstring_view hostName)
{
    const size_t tails = crashTime.size() + hostName.size();
    const auto writeTails = [&](wchar_t* to) {
        to = std::copy(crashTime.begin(), crashTime.end(), to);
        return std::copy(hostName.begin(), hostName.end(), to);
    };
    // A text the last report handed over is written over in one pass while
    // it has the room: measuring the message first was a pass too many for
    // the event path's crash figure.
    if (text.capacity() >= message.size() + tails) {
        // As long as a message of nothing but breaks, or all there is.
        text.resize(std::min(text.capacity(), message.size() * 3 + tails));
        wchar_t* const to = WriteReplacingLineBreaks(text.data(), text.data() + text.size() - tails, message);
        if (to != nullptr) {
            text.resize(static_cast<size_t>(writeTails(to) - text.data()));
            return;
        }
    }
    // Sized exactly: for a text without the room, that is its one allocation.
    text.clear();
    text.resize(ReplacedLineBreaksLength(message) + tails);
    writeTails(WriteReplacingLineBreaks(text.data(), text.data() + text.size() - tails, message));
}

void FetchForWriting(const CrashText& text) noexcept
{
#if ZEPH_CRASH_TEXT_SSE2
    // The texts a report hands over are written again by the next crashes,
    // which found them in the cache of the processor that ran the report and
    // waited for every line (the event path's crash figure). Fetched at the
    // end of one crash, a text is at hand for the next.
    constexpr size_t kLineBytes = 64;
    const char* const first = reinterpret_cast<const char*>(text.data());
    const char* const end = first + text.capacity() * sizeof(wchar_t);
    for (const char* line = first; line < end; line += kLineBytes) {
        _mm_prefetch(line, _MM_HINT_T0);
    }
#else
    (void)text;
#endif
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

    // Written aside and appended at once: a capacity check per character cost
    // a crash event as much as the conversion.
    wchar_t dateTime[kMostDateTimeLength];
    wchar_t* to = WriteDecimal(dateTime, utc.wYear, 1);
    *to++ = L'-';
    to = WriteDecimal(to, utc.wMonth, 2);
    *to++ = L'-';
    to = WriteDecimal(to, utc.wDay, 2);
    *to++ = L' ';
    to = WriteDecimal(to, utc.wHour, 2);
    *to++ = L':';
    to = WriteDecimal(to, utc.wMinute, 2);
    *to++ = L':';
    to = WriteDecimal(to, utc.wSecond, 2);
    text.append(kCrashTimePrefix);
    text.append(dateTime, static_cast<size_t>(to - dateTime));
}

}  // namespace zeph
