// The host's logger (IProviderLogger) as zeph-host, the tests and the benchmarks
// hand it to the provider. It answers GetCategoryLevels with the levels it is
// given, and takes each line two ways: it keeps it while keeping is on (Lines,
// for the tests and for zeph-host while it watches what the provider created),
// and hands it to the printer when there is one (zeph-host's console).
// Ownership: reference counted; the creator's reference is taken with Adopt.
// Failure: a line it cannot keep or print is answered with E_OUTOFMEMORY (or
// E_UNEXPECTED); otherwise every call answers what SetResult set (S_OK).
// Threads: any; the provider logs from the event log's delivery threads too.
#pragma once

#include "metric/log_level.h"
#include "support/host_object.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace zeph {

struct LogLine {
    LogLevel level;
    std::wstring text;
    bool operator==(const LogLine&) const = default;
};

class HostLogger : public HostDispatchObject<IProviderLogger> {
public:
    // Called for every line, under no lock of the logger's.
    using Printer = std::function<void(LogLevel level, std::wstring_view category, std::wstring_view text)>;

    explicit HostLogger(ULONG levels, bool keep = true, Printer printer = {})
        : levels_(levels), keep_(keep), printer_(std::move(printer))
    {
    }

    void SetLevels(ULONG levels) { levels_ = levels; }
    void SetResult(HRESULT result) { result_ = result; }  // what every call returns; the provider must ignore it
    void Keep(bool keep) { keep_ = keep; }

    std::vector<LogLine> Lines() const;
    std::vector<std::wstring> Texts() const;
    bool Has(LogLevel level, const std::wstring& text) const;  // some kept line at level is exactly text
    void Clear();
    LONG LevelQueries() const { return levelQueries_; }

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP GetCategoryLevels(LPCWSTR category, ULONG* levels) override;
    STDMETHODIMP LogError(BSTR category, BSTR text) override { return Take(LogLevel::Error, category, text); }
    STDMETHODIMP LogWarning(BSTR category, BSTR text) override { return Take(LogLevel::Warning, category, text); }
    STDMETHODIMP LogInfo(BSTR category, BSTR text) override { return Take(LogLevel::Info, category, text); }

private:
    HRESULT Take(LogLevel level, BSTR category, BSTR text);

    std::atomic<ULONG> levels_;
    std::atomic<bool> keep_;
    const Printer printer_;
    std::atomic<HRESULT> result_{S_OK};
    std::atomic<LONG> levelQueries_{0};
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

}  // namespace zeph
