#include "value_format.h"

#include "console.h"
#include "logon_phases.h"
#include "win/file_time.h"

#include <algorithm>
#include <cstdio>
#include <cwchar>

namespace zeph::host {

namespace {

constexpr ULONGLONG kMaxFileTime = 0x7FFFFFFFFFFFFFFFull;
constexpr wchar_t kKeyHeading[] = L"key";
constexpr wchar_t kInstanceHeading[] = L"instance";
constexpr wchar_t kValueHeading[] = L"value";

std::wstring HexCode(HRESULT code)
{
    wchar_t text[16] = {};
    std::swprintf(text, 16, L"0x%08lx", static_cast<unsigned long>(code));
    return text;
}

// Line breaks inside a value would break the table's lines.
std::wstring OneLine(std::wstring_view text)
{
    std::wstring result;
    result.reserve(text.size());
    for (wchar_t c : text) {
        if (c == L'\r') {
            result += L"\\r";
        } else if (c == L'\n') {
            result += L"\\n";
        } else {
            result += c;
        }
    }
    return result;
}

std::wstring TableValue(const SinkWrite& value)
{
    if (value.type == VT_BSTR) {
        return OneLine(value.text);
    }
    if (value.type == VT_UI8) {
        std::wstring text = std::to_wstring(value.number);
        if (const auto utc = UtcText(value.number, false)) {
            text += L" (" + *utc + L")";
        }
        return text;
    }
    return L"[VARTYPE " + std::to_wstring(value.type) + L"] " + OneLine(value.text);
}

std::wstring Padded(const std::wstring& text, size_t width)
{
    return text + std::wstring(width > text.size() ? width - text.size() : 0, L' ');
}

}  // namespace

std::optional<std::wstring> UtcText(ULONGLONG unixMilliseconds, bool iso)
{
    if (unixMilliseconds > (kMaxFileTime - kUnixEpochAsFileTime) / kFileTimeUnitsPerMs) {
        return std::nullopt;
    }
    const ULONGLONG fileTime = unixMilliseconds * kFileTimeUnitsPerMs + kUnixEpochAsFileTime;
    const FILETIME time = FileTimeOfCount(fileTime);
    SYSTEMTIME utc = {};
    if (!::FileTimeToSystemTime(&time, &utc)) {
        return std::nullopt;
    }
    wchar_t text[40] = {};
    std::swprintf(text, 40, iso ? L"%04u-%02u-%02uT%02u:%02u:%02u.%03uZ" : L"%04u-%02u-%02u %02u:%02u:%02u.%03u UTC",
                  utc.wYear, utc.wMonth, utc.wDay, utc.wHour, utc.wMinute, utc.wSecond, utc.wMilliseconds);
    return std::wstring(text);
}

std::wstring SystemTimeText(const SYSTEMTIME& utc, bool iso)
{
    wchar_t text[40] = {};
    if (iso) {
        std::swprintf(text, 40, L"%04u-%02u-%02uT%02u:%02u:%02u.%03uZ", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                      utc.wMinute, utc.wSecond, utc.wMilliseconds);
    } else {
        std::swprintf(text, 40, L"%04u-%02u-%02u %02u:%02u:%02u UTC", utc.wYear, utc.wMonth, utc.wDay, utc.wHour,
                      utc.wMinute, utc.wSecond);
    }
    return text;
}

std::wstring JsonString(std::wstring_view text)
{
    std::wstring result = L"\"";
    for (wchar_t c : text) {
        switch (c) {
        case L'"':
            result += L"\\\"";
            break;
        case L'\\':
            result += L"\\\\";
            break;
        case L'\n':
            result += L"\\n";
            break;
        case L'\r':
            result += L"\\r";
            break;
        case L'\t':
            result += L"\\t";
            break;
        default:
            if (c < 0x20) {
                wchar_t escape[8] = {};
                std::swprintf(escape, 8, L"\\u%04x", static_cast<unsigned>(c));
                result += escape;
            } else {
                result += c;
            }
        }
    }
    return result + L"\"";
}

std::wstring TableHeader(unsigned query, const SYSTEMTIME& utcNow)
{
    return L"Query " + std::to_wstring(query) + L" at " + SystemTimeText(utcNow, false) + L"\n";
}

std::wstring TableLines(const MetricQuery& query)
{
    const size_t count = query.values.size();
    std::wstring text = query.metric + L": " + std::to_wstring(count) + (count == 1 ? L" value" : L" values");
    if (FAILED(query.result)) {
        text += L", query failed: " + DescribeError(static_cast<DWORD>(query.result));
    }
    text += L"\n";
    if (count == 0) {
        return text;
    }
    size_t keyWidth = std::wcslen(kKeyHeading);
    size_t instanceWidth = std::wcslen(kInstanceHeading);
    for (const SinkWrite& value : query.values) {
        keyWidth = std::max(keyWidth, value.key.size());
        instanceWidth = std::max(instanceWidth, value.name.size());
    }
    text += L"  " + Padded(kKeyHeading, keyWidth) + L"  " + Padded(kInstanceHeading, instanceWidth) + L"  " +
            kValueHeading + L"\n";
    for (const SinkWrite& value : query.values) {
        text += L"  " + Padded(value.key, keyWidth) + L"  " + Padded(value.name, instanceWidth) + L"  " +
                TableValue(value) + L"\n";
    }
    const auto phases = LogonPhases(query.values);
    if (!phases.empty()) {
        size_t nameWidth = 0;
        size_t durationWidth = 0;
        for (const LogonPhase& phase : phases) {
            nameWidth = std::max(nameWidth, std::wcslen(phase.name));
            if (phase.milliseconds) {
                durationWidth = std::max(durationWidth, DurationText(*phase.milliseconds).size());
            }
        }
        text += L"  log-on phases, from the time stamps above:\n";
        for (const LogonPhase& phase : phases) {
            text += L"    " + Padded(phase.name, nameWidth) + L"  ";
            if (!phase.milliseconds) {
                text += L"not known (" + phase.note + L")\n";
                continue;
            }
            const std::wstring duration = DurationText(*phase.milliseconds);
            text += std::wstring(durationWidth - duration.size(), L' ') + duration +
                    (phase.note.empty() ? L"" : L" (" + phase.note + L")") + L"\n";
        }
    }
    return text;
}

std::wstring JsonLines(const MetricQuery& query, const SYSTEMTIME& utcNow)
{
    const std::wstring prefix =
        L"{\"query\":" + std::to_wstring(query.query) + L",\"metric\":" + JsonString(query.metric);
    std::wstring text;
    for (const SinkWrite& value : query.values) {
        text += prefix + L",\"key\":" + JsonString(value.key) + L",\"instance\":" + JsonString(value.name);
        if (value.type == VT_BSTR) {
            text += L",\"type\":\"string\",\"value\":" + JsonString(value.text);
        } else if (value.type == VT_UI8) {
            text += L",\"type\":\"uint64\",\"value\":" + std::to_wstring(value.number);
            if (const auto utc = UtcText(value.number, true)) {
                text += L",\"utc\":" + JsonString(*utc);
            }
        } else {
            text += L",\"type\":\"vartype " + std::to_wstring(value.type) + L"\",\"value\":" + JsonString(value.text);
        }
        text += L"}\n";
    }
    text += prefix + L",\"result\":" + JsonString(HexCode(query.result)) + L",\"values\":" +
            std::to_wstring(query.values.size()) + L",\"time\":" + JsonString(SystemTimeText(utcNow, true));
    if (const auto phases = LogonPhases(query.values); !phases.empty()) {
        std::wstring members;
        for (const LogonPhase& phase : phases) {
            members += (members.empty() ? L"" : L",") + JsonString(phase.jsonName) + L":" +
                       (phase.milliseconds ? std::to_wstring(*phase.milliseconds) : L"null");
        }
        text += L",\"phases\":{" + members + L"}";
    }
    return text + L"}\n";
}

}  // namespace zeph::host
