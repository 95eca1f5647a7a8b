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

// Makes text ReplaceLineBreaks(message), then crashTime, then hostName: in its
// own storage when that has the room, else at its final size, which is its one
// allocation.
void AssignDetailText(CrashText& text, std::wstring_view message, std::wstring_view crashTime,
                      std::wstring_view hostName);

// Asks the processor to fetch text's storage into its cache ahead of the
// writes that will fill it, and returns at once.
void FetchForWriting(const CrashText& text) noexcept;

// "<br />Crash Time: YYYY-MM-DD hh:mm:ss", in UTC as the event log keeps it.
std::wstring FormatCrashTime(ULONGLONG fileTime);

// Appends FormatCrashTime(fileTime) to text: into its existing storage, so a
// text reused from event to event allocates nothing.
void AppendCrashTime(std::wstring& text, ULONGLONG fileTime);

}  // namespace zeph
