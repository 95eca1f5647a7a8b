#include "support/text.h"

#include "win/com_strings.h"

#include <windows.h>
#include <objbase.h>

namespace zeph {

std::string ToUtf8(std::wstring_view text)
{
    if (text.empty()) {
        return {};
    }
    const int length = static_cast<int>(text.size());
    const int size = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, nullptr, 0, nullptr, nullptr);
    std::string bytes(static_cast<size_t>(size), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), length, bytes.data(), size, nullptr, nullptr);
    return bytes;
}

std::wstring FromUtf8(std::string_view bytes)
{
    if (bytes.empty()) {
        return {};
    }
    const int length = static_cast<int>(bytes.size());
    const int size = ::MultiByteToWideChar(CP_UTF8, 0, bytes.data(), length, nullptr, 0);
    std::wstring text(static_cast<size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, bytes.data(), length, text.data(), size);
    return text;
}

std::wstring AsciiLower(std::wstring_view text)
{
    std::wstring result(text);
    for (wchar_t& c : result) {
        if (c >= L'A' && c <= L'Z') {
            c = static_cast<wchar_t>(c - L'A' + L'a');
        }
    }
    return result;
}

std::wstring NewGuidText()
{
    GUID guid{};
    ::CoCreateGuid(&guid);
    return GuidString(guid);
}

}  // namespace zeph
