// Text output of the host. Values go to standard output, log lines and errors to
// standard error, both as UTF-8 with LF line ends. Every call writes whole lines
// under one lock, so lines from the event log's delivery threads never interleave
// with a table being printed.
#pragma once

#include "metric/log_level.h"

#include <windows.h>

#include <string>
#include <string_view>

namespace zeph::host {

void WriteOut(std::wstring_view text);
void WriteErr(std::wstring_view text);

// One of the provider's log lines on standard error, as "hh:mm:ss.mmm [level] category: text";
// further lines of a multi-line text are indented under the first.
void PrintLogLine(LogLevel level, std::wstring_view category, std::wstring_view text);

// The system's message text for an HRESULT or Win32 code, without its line end (for
// the event log's codes, our copy of Windows' text where the system has none, as
// under Wine); empty when there is none.
std::wstring SystemMessage(DWORD code);

// "0x80070005 (Access is denied.)", or the bare number when the system has no text.
std::wstring DescribeError(DWORD code);

// Sets the console's output code page to UTF-8 for the object's life.
class Utf8Console {
public:
    Utf8Console();
    ~Utf8Console();
    Utf8Console(const Utf8Console&) = delete;
    Utf8Console& operator=(const Utf8Console&) = delete;

private:
    UINT previous_;
};

}  // namespace zeph::host
