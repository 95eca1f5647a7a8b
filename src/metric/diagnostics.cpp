#include "metric/diagnostics.h"

#include <cstdio>

namespace zeph {

namespace {

constexpr wchar_t kSuffixWithText[] = L"  Error code 0x%08lx -- %s";
constexpr wchar_t kSuffixWithoutText[] = L"  Error code 0x%08lx.";

}  // namespace

std::wstring FormatStringV(const wchar_t* format, va_list args)
{
    // The runtime's own _vscwprintf/_vsnwprintf: %s means a wide string there,
    // as with the Microsoft compiler.
    va_list counting;
    va_copy(counting, args);
    int count = _vscwprintf(format, counting);
    va_end(counting);
    if (count < 0) {
        count = 0;
    }
    std::wstring text(static_cast<size_t>(count), L'\0');
    if (count > 0) {
        _vsnwprintf(text.data(), text.size() + 1, format, args);
    }
    return text;
}

std::wstring FormatString(const wchar_t* format, ...)
{
    va_list args;
    va_start(args, format);
    struct VaEnd {
        va_list& list;
        ~VaEnd() { va_end(list); }
    } end{args};
    return FormatStringV(format, args);
}

ErrorText AppendErrorText(const wchar_t* format, HRESULT code)
{
    ErrorText result;
    wchar_t* systemText = nullptr;
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM,
                         nullptr, static_cast<DWORD>(code), MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT),
                         reinterpret_cast<wchar_t*>(&systemText), 0, nullptr);
    result.systemText.reset(systemText);
    result.format = format;
    result.format += (length != 0 && systemText != nullptr) ? kSuffixWithText : kSuffixWithoutText;
    return result;
}

}  // namespace zeph
