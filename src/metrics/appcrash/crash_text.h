// The parts of a crash's detail text.
#pragma once

#include "win/private_heap.h"

#include <windows.h>

#include <string>
#include <string_view>

namespace zeph {

// A detail text as the crash metric keeps it until reported: in the metric's
// own heap.
using CrashText = std::basic_string<wchar_t, std::char_traits<wchar_t>, PrivateHeapAllocator<wchar_t>>;

// Every "\r\n" pair becomes "<br />", scanning from the start; a lone "\r" or
// "\n" stays. Linear in the length of the message.
std::wstring ReplaceLineBreaks(std::wstring_view message);

// The length of ReplaceLineBreaks(message), without building it.
size_t ReplacedLineBreaksLength(std::wstring_view message) noexcept;

// Appends ReplaceLineBreaks(message) to text. With text reserved to its final
// size first, a detail text costs one allocation.
void AppendReplacingLineBreaks(std::wstring& text, std::wstring_view message);
void AppendReplacingLineBreaks(CrashText& text, std::wstring_view message);

// "<br />Crash Time: YYYY-MM-DD hh:mm:ss", in UTC as the event log keeps it.
std::wstring FormatCrashTime(ULONGLONG fileTime);

// Appends FormatCrashTime(fileTime) to text: into its existing storage, so a
// text reused from event to event allocates nothing.
void AppendCrashTime(std::wstring& text, ULONGLONG fileTime);

}  // namespace zeph
