// A host logger that keeps every line with its level. Levels are set by the
// test; calls may come from any thread.
#pragma once

#include "logging.h"
#include "test_com_object.h"

#include <mutex>
#include <string>
#include <vector>

namespace zeph::test {

struct LogLine {
    LogLevel level;
    std::wstring text;
    bool operator==(const LogLine&) const = default;
};

class RecordingLogger final : public TestDispatchObject<IProviderLogger> {
public:
    explicit RecordingLogger(ULONG levels = 0x7) : levels_(levels) {}

    void SetLevels(ULONG levels) { levels_ = levels; }
    // Every call returns this (the provider must ignore it).
    void SetResult(HRESULT result) { result_ = result; }

    std::vector<LogLine> Lines() const;
    std::vector<std::wstring> Texts() const;  // texts only, in order
    void Clear();
    LONG LevelQueries() const { return levelQueries_; }
    // True when some line at level equals text exactly.
    bool Has(LogLevel level, const std::wstring& text) const;

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP GetCategoryLevels(LPCWSTR category, ULONG* levels) override;
    STDMETHODIMP LogError(BSTR category, BSTR text) override { return Record(LogLevel::Error, category, text); }
    STDMETHODIMP LogWarning(BSTR category, BSTR text) override { return Record(LogLevel::Warning, category, text); }
    STDMETHODIMP LogInfo(BSTR category, BSTR text) override { return Record(LogLevel::Info, category, text); }

private:
    HRESULT Record(LogLevel level, BSTR category, BSTR text);

    std::atomic<ULONG> levels_;
    std::atomic<HRESULT> result_{S_OK};
    std::atomic<LONG> levelQueries_{0};
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

}  // namespace zeph::test
