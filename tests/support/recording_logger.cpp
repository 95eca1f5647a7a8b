#include "recording_logger.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace zeph::test {

std::vector<LogLine> RecordingLogger::Lines() const
{
    std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<std::wstring> RecordingLogger::Texts() const
{
    std::vector<std::wstring> texts;
    for (const LogLine& line : Lines()) {
        texts.push_back(line.text);
    }
    return texts;
}

void RecordingLogger::Clear()
{
    std::lock_guard lock(mutex_);
    lines_.clear();
}

bool RecordingLogger::Has(LogLevel level, const std::wstring& text) const
{
    const auto lines = Lines();
    return std::find(lines.begin(), lines.end(), LogLine{level, text}) != lines.end();
}

STDMETHODIMP RecordingLogger::GetCategoryLevels(LPCWSTR category, ULONG* levels)
{
    ++levelQueries_;
    EXPECT_STREQ(category, L"eventlog");
    EXPECT_EQ(*levels, 0u) << "the caller clears the flags before asking";
    *levels = levels_;
    return result_;
}

HRESULT RecordingLogger::Record(LogLevel level, BSTR category, BSTR text)
{
    EXPECT_STREQ(category, L"eventlog");
    EXPECT_NE((levels_ & static_cast<ULONG>(level)), 0u) << "a line was written for a level that is off";
    std::lock_guard lock(mutex_);
    lines_.push_back({level, std::wstring(text, ::SysStringLen(text))});
    return result_;
}

}  // namespace zeph::test
