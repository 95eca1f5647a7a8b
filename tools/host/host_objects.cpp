#include "host_objects.h"

#include "console.h"
#include "win/com_strings.h"

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <new>

namespace zeph::host {

namespace {

std::wstring FromBstr(BSTR text)
{
    return text != nullptr ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
}

// Continuation lines of a multi-line text start indented under the first.
std::wstring IndentLines(std::wstring text)
{
    // A system message text brings its own line end.
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ')) {
        text.pop_back();
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

// The provider's info line for a metric it created, around the metric's name.
constexpr wchar_t kCreatedPrefix[] = L"created metric '";
constexpr wchar_t kCreatedSuffix[] = L"'.";

}  // namespace

STDMETHODIMP ConsoleLogger::GetCategoryLevels(LPCWSTR, ULONG* levels)
{
    if (levels == nullptr) {
        return E_POINTER;
    }
    *levels = levels_ | (watching_ ? kLevelInfo : 0);
    return S_OK;
}

bool ConsoleLogger::Created(const std::wstring& name)
{
    std::lock_guard lock(createdMutex_);
    return std::find(created_.begin(), created_.end(), name) != created_.end();
}

HRESULT ConsoleLogger::Print(ULONG level, const wchar_t* levelName, BSTR category, BSTR text)
{
    try {
        const std::wstring line = FromBstr(text);
        if (line.starts_with(kCreatedPrefix) && line.ends_with(kCreatedSuffix) &&
            line.size() >= std::size(kCreatedPrefix) + std::size(kCreatedSuffix) - 2) {
            std::lock_guard lock(createdMutex_);
            created_.push_back(line.substr(std::size(kCreatedPrefix) - 1,
                                           line.size() - std::size(kCreatedPrefix) - std::size(kCreatedSuffix) + 2));
        }
        if ((levels_ & level) == 0) {
            return S_OK;
        }
        SYSTEMTIME now = {};
        ::GetLocalTime(&now);
        wchar_t stamp[32] = {};
        std::swprintf(stamp, 32, L"%02u:%02u:%02u.%03u [", now.wHour, now.wMinute, now.wSecond, now.wMilliseconds);
        WriteErr(stamp + std::wstring(levelName) + L"] " + FromBstr(category) + L": " + IndentLines(line) + L"\n");
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

STDMETHODIMP ValueSink::WriteMetricValue(BSTR key, BSTR name, VARIANT* value)
{
    if (value == nullptr) {
        return E_POINTER;
    }
    try {
        MetricValue received;
        received.key = FromBstr(key);
        received.instance = FromBstr(name);
        received.type = V_VT(value);
        if (V_VT(value) == VT_BSTR) {
            received.text = FromBstr(V_BSTR(value));
        } else if (V_VT(value) == VT_UI8) {
            received.number = V_UI8(value);
        } else {
            ScopedVariant copy;
            if (SUCCEEDED(::VariantChangeType(copy.get(), value, VARIANT_ALPHABOOL, VT_BSTR))) {
                received.text = FromBstr(V_BSTR(copy.get()));
            }
        }
        std::lock_guard lock(mutex_);
        values_.push_back(std::move(received));
        return S_OK;
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
}

std::vector<MetricValue> ValueSink::Take()
{
    std::lock_guard lock(mutex_);
    std::vector<MetricValue> taken;
    taken.swap(values_);
    return taken;
}

}  // namespace zeph::host
