// Searching UTF-16 text for one code unit or a short string, eight code units
// at a time where the processor has SSE2 (every x64 one). The runtime's own
// searches go one unit at a time, which showed in the crash messages and the
// service log, measured or scanned on every event or log-on. Results are those of
// std::wstring_view::find.
#pragma once

#include <bit>
#include <cstddef>
#include <string_view>

#if defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define ZEPH_SEARCH_SSE2 1
#endif

namespace zeph {

// The first unit in [from, end), or end.
inline const wchar_t* FindCodeUnit(const wchar_t* from, const wchar_t* end, wchar_t unit) noexcept
{
#if ZEPH_SEARCH_SSE2
    static_assert(sizeof(wchar_t) == 2, "UTF-16 code units");
    const __m128i wanted = _mm_set1_epi16(static_cast<short>(unit));
    // Four chunks to a test while nothing matches: a crash message's length
    // is taken so on every crash event (the event path's crash figure).
    for (; end - from >= 32; from += 32) {
        const auto chunk = [from, wanted](int at) {
            return _mm_cmpeq_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(from + at)), wanted);
        };
        if (_mm_movemask_epi8(_mm_or_si128(_mm_or_si128(chunk(0), chunk(8)), _mm_or_si128(chunk(16), chunk(24)))) !=
            0) {
            break;  // found within these four chunks, by the loop below
        }
    }
    for (; end - from >= 8; from += 8) {
        const __m128i chunk = _mm_loadu_si128(reinterpret_cast<const __m128i*>(from));
        const auto matches = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi16(chunk, wanted)));
        if (matches != 0) {
            return from + std::countr_zero(matches) / 2;  // two mask bits per unit
        }
    }
#endif
    while (from != end && *from != unit) {
        ++from;
    }
    return from;
}

// text.find(what, from), with the same result.
inline size_t FindText(std::wstring_view text, std::wstring_view what, size_t from = 0) noexcept
{
    if (from > text.size() || what.size() > text.size() - from) {
        return what.empty() && from <= text.size() ? from : std::wstring_view::npos;
    }
    if (what.empty()) {
        return from;
    }
    const wchar_t* const begin = text.data();
    const wchar_t* const last = begin + (text.size() - what.size()) + 1;  // past the last possible start
    for (const wchar_t* at = FindCodeUnit(begin + from, last, what.front()); at != last;
         at = FindCodeUnit(at + 1, last, what.front())) {
        // The last unit first: most false starts end there, without a call.
        if (at[what.size() - 1] == what.back() &&
            (what.size() <= 2 || std::wstring_view(at + 1, what.size() - 2) == what.substr(1, what.size() - 2))) {
            return static_cast<size_t>(at - begin);
        }
    }
    return std::wstring_view::npos;
}

}  // namespace zeph
