#include "support/host_logger.h"

#include <oleauto.h>

#include <algorithm>
#include <cwchar>
#include <new>

namespace zeph {

namespace {

std::wstring_view View(BSTR text)
{
    return text != nullptr ? std::wstring_view(text, ::SysStringLen(text)) : std::wstring_view();
}

// Bookkeeping scopes only where the logger allocates: the benchmarks count what the
// provider's calls cost, the logger included.
void CheckCategory(const wchar_t* category)
{
    if (category == nullptr || std::wcscmp(category, kLogCategory) != 0) {
        const HostBookkeeping bookkeeping;
        ReportContractBreach(L"the provider logs under the category '" + std::wstring(category ? category : L"") +
                             L"', not '" + kLogCategory + L"'");
    }
}

}  // namespace

std::vector<LogLine> HostLogger::Lines() const
{
    std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<std::wstring> HostLogger::Texts() const
{
    std::vector<std::wstring> texts;
    for (const LogLine& line : Lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

bool HostLogger::Has(LogLevel level, const std::wstring& text) const
{
    const auto lines = Lines();
    return std::find(lines.begin(), lines.end(), LogLine{level, text}) != lines.end();
}

void HostLogger::Clear()
{
    std::lock_guard lock(mutex_);
    lines_.clear();
}

STDMETHODIMP HostLogger::GetCategoryLevels(LPCWSTR category, ULONG* levels)
{
    ++levelQueries_;
    try {
        CheckCategory(category);
        if (levels == nullptr) {
            const HostBookkeeping bookkeeping;
            ReportContractBreach(L"GetCategoryLevels was called without an out parameter");
            return E_POINTER;
        }
        if (*levels != 0) {
            const HostBookkeeping bookkeeping;
            ReportContractBreach(L"the caller clears the levels before asking");
        }
    } catch (...) {
        return E_OUTOFMEMORY;  // only a breach's text allocates
    }
    *levels = levels_;
    return result_;
}

HRESULT HostLogger::Take(LogLevel level, BSTR category, BSTR text)
{
    try {
        CheckCategory(category);
        if ((levels_ & LevelBit(level)) == 0) {
            const HostBookkeeping bookkeeping;
            ReportContractBreach(L"a line was written for a level that is off: " + std::wstring(View(text)));
        }
        if (keep_ || printer_) {
            const HostBookkeeping bookkeeping;
            if (keep_) {
                std::lock_guard lock(mutex_);
                lines_.push_back({level, std::wstring(View(text))});
            }
            if (printer_) {
                printer_(level, View(category), View(text));
            }
        }
    } catch (const std::bad_alloc&) {
        return E_OUTOFMEMORY;
    } catch (...) {
        return E_UNEXPECTED;
    }
    return result_;
}

}  // namespace zeph
