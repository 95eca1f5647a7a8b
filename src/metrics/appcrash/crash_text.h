// The parts of a crash's detail text.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace zeph {

// Every "\r\n" pair becomes "<br />", scanning from the start; a lone "\r" or
// "\n" stays. Linear in the length of the message.
std::wstring ReplaceLineBreaks(std::wstring_view message);

// "<br />Crash Time: YYYY-MM-DD hh:mm:ss", in UTC as the event log keeps it.
std::wstring FormatCrashTime(ULONGLONG fileTime);

}  // namespace zeph
