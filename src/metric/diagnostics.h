// Text formatting and the error-text suffix that every logged failure carries.
#pragma once

#include "win/unique_resource.h"

#include <windows.h>

#include <cstdarg>
#include <string>

namespace zeph {

// printf-style wide formatting with the system runtime's rules: %s takes a wide
// string, %d a 32-bit integer, %08lx a 32-bit value in hexadecimal.
// Throws std::bad_alloc when the text cannot be allocated.
std::wstring FormatString(const wchar_t* format, ...);
std::wstring FormatStringV(const wchar_t* format, va_list args);

// A failure template with its error suffix, and the system's text for the code.
struct ErrorText {
    std::wstring format;           // template + "  Error code 0x%08lx -- %s" or + "  Error code 0x%08lx."
    unique_local_text systemText;  // null when the system has no text for the code
};

// The system text is inserted as the system gives it, trailing line break included.
ErrorText AppendErrorText(const wchar_t* format, HRESULT code);

}  // namespace zeph
