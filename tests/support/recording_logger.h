// A host logger that keeps every line with its level. Levels are set by the
// test; calls may come from any thread.
#pragma once

#include "metric/logging.h"
#include "test_com_object.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

namespace zeph::test {

struct LogLine {
    LogLevel level;
    std::wstring text;
    bool operator==(const LogLine&) const = default;
};

class RecordingLogger : public TestDispatchObject<IProviderLogger> {
public:
    explicit RecordingLogger(ULONG levels = 0x7) : levels_(levels) {}

    void SetLevels(ULONG levels) { levels_ = levels; }
    void SetResult(HRESULT result) { result_ = result; }  // what every call returns; the provider must ignore it

    std::vector<LogLine> Lines() const
    {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    std::vector<std::wstring> Texts() const
    {
        std::vector<std::wstring> texts;
        for (const LogLine& line : Lines()) {
            texts.push_back(line.text);
        }
        return texts;
    }
    void Clear()
    {
        std::lock_guard lock(mutex_);
        lines_.clear();
    }
    LONG LevelQueries() const { return levelQueries_; }
    bool Has(LogLevel level, const std::wstring& text) const  // some line at level is exactly text
    {
        const auto lines = Lines();
        return std::find(lines.begin(), lines.end(), LogLine{level, text}) != lines.end();
    }

    STDMETHODIMP HostReserved1() override { return E_NOTIMPL; }
    STDMETHODIMP GetCategoryLevels(LPCWSTR category, ULONG* levels) override
    {
        const HostDoubleScope scope;
        ++levelQueries_;
        EXPECT_STREQ(category, L"eventlog");
        EXPECT_EQ(*levels, 0u) << "the caller clears the flags before asking";
        *levels = levels_;
        return result_;
    }
    STDMETHODIMP LogError(BSTR category, BSTR text) override { return Record(LogLevel::Error, category, text); }
    STDMETHODIMP LogWarning(BSTR category, BSTR text) override { return Record(LogLevel::Warning, category, text); }
    STDMETHODIMP LogInfo(BSTR category, BSTR text) override { return Record(LogLevel::Info, category, text); }

private:
    HRESULT Record(LogLevel level, BSTR category, BSTR text)
    {
        const HostDoubleScope scope;
        EXPECT_STREQ(category, L"eventlog");
        EXPECT_NE((levels_ & static_cast<ULONG>(level)), 0u) << "a line was written for a level that is off";
        std::lock_guard lock(mutex_);
        lines_.push_back({level, std::wstring(text, ::SysStringLen(text))});
        return result_;
    }

    std::atomic<ULONG> levels_;
    std::atomic<HRESULT> result_{S_OK};
    std::atomic<LONG> levelQueries_{0};
    mutable std::mutex mutex_;
    std::vector<LogLine> lines_;
};

}  // namespace zeph::test
