// Text of the host side: UTF-16 to UTF-8 and back (unpaired surrogates and invalid
// bytes become U+FFFD), ASCII case folding for names the system compares without
// regard to case (options, registry keys, paths), and fresh unique names.
// Allocation failures throw std::bad_alloc.
#pragma once

#include <string>
#include <string_view>

namespace zeph {

std::string ToUtf8(std::wstring_view text);
std::wstring FromUtf8(std::string_view bytes);

// A-Z to a-z; every other character as it is.
std::wstring AsciiLower(std::wstring_view text);

// A new GUID in registry form, for names nobody else uses.
std::wstring NewGuidText();

}  // namespace zeph
