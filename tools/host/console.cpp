#include "console.h"

#include "support/text.h"
#include "win/unique_resource.h"

#include <fcntl.h>
#include <io.h>

#include <cstdio>
#include <mutex>

namespace zeph::host {

namespace {

std::mutex& OutputLock()
{
    static std::mutex lock;
    return lock;
}

void Write(FILE* stream, std::wstring_view text)
{
    const std::string bytes = ToUtf8(text);
    std::lock_guard lock(OutputLock());
    std::fwrite(bytes.data(), 1, bytes.size(), stream);
    std::fflush(stream);
}

// Continuation lines of a multi-line text start indented under the first.
std::wstring IndentLines(std::wstring_view text)
{
    // A system message text brings its own line end.
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ')) {
        text.remove_suffix(1);
    }
    std::wstring result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == L'\r' && i + 1 < text.size() && text[i + 1] == L'\n') {
            continue;
        }
        result += text[i];
        if (text[i] == L'\n') {
            result += L"    ";
        }
    }
    return result;
}

}  // namespace

void PrintLogLine(LogLevel level, std::wstring_view category, std::wstring_view text)
{
    const wchar_t* name = level == LogLevel::Error ? L"error" : level == LogLevel::Warning ? L"warning" : L"info";
    SYSTEMTIME now = {};
    ::GetLocalTime(&now);
    wchar_t stamp[32] = {};
    std::swprintf(stamp, 32, L"%02u:%02u:%02u.%03u [", now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
    WriteErr(stamp + std::wstring(name) + L"] " + std::wstring(category) + L": " + IndentLines(text) + L"\n");
}

void WriteOut(std::wstring_view text)
{
    Write(stdout, text);
}

void WriteErr(std::wstring_view text)
{
    Write(stderr, text);
}

namespace {

// The texts of the event log's own codes that zeph-host's checks meet, for a system
// that has none of them (Wine).
struct KnownText {
    DWORD code;
    const wchar_t* text;
};
constexpr KnownText kEventLogTexts[] = {
    {ERROR_EVT_INVALID_CHANNEL_PATH, L"The specified channel path is not valid."},
    {ERROR_EVT_INVALID_QUERY, L"The specified query is not valid."},
    {ERROR_EVT_CHANNEL_NOT_FOUND, L"The specified channel cannot be found. Check the channel configuration."},
};

}  // namespace

std::wstring SystemMessage(DWORD code)
{
    unique_local_text buffer;
    const DWORD length =
        ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                         nullptr, code, 0, reinterpret_cast<wchar_t*>(buffer.put()), 0, nullptr);
    std::wstring text(buffer.get() != nullptr ? buffer.get() : L"", length);
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ')) {
        text.pop_back();
    }
    if (text.empty()) {
        for (const KnownText& known : kEventLogTexts) {
            if (known.code == code) {
                return known.text;
            }
        }
    }
    return text;
}

std::wstring DescribeError(DWORD code)
{
    wchar_t number[16] = {};
    std::swprintf(number, 16, L"0x%08lx", static_cast<unsigned long>(code));
    const std::wstring message = SystemMessage(code);
    return message.empty() ? std::wstring(number) : std::wstring(number) + L" (" + message + L")";
}

Utf8Console::Utf8Console() : previous_(::GetConsoleOutputCP())
{
    ::SetConsoleOutputCP(CP_UTF8);
    // Our own LF line ends, also when the output goes to a file or a pipe.
    _setmode(_fileno(stdout), _O_BINARY);
    _setmode(_fileno(stderr), _O_BINARY);
}

Utf8Console::~Utf8Console()
{
    if (previous_ != 0) {
        ::SetConsoleOutputCP(previous_);
    }
}

}  // namespace zeph::host
