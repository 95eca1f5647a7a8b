// The one way anything logs: through the host's logger, under the category
// "eventlog", asking for the category's levels first and formatting nothing
// when the level is off. A null logger logs nothing. Logging never reports a
// failure of the logger to its caller; allocation failures propagate.
// Called from the host's thread and from event delivery threads alike.
#pragma once

#include "metric/diagnostics.h"
#include "metric/log_level.h"

#include <agent.h>

#include <string>
#include <type_traits>

namespace zeph {

[[nodiscard]] bool IsLogLevelEnabled(IProviderLogger* logger, LogLevel level) noexcept;

// Hands one finished line to the logger (category and text as BSTRs).
void WriteLogLine(IProviderLogger* logger, LogLevel level, const std::wstring& text);

// Strings go in as const wchar_t*: the format is printf-style.
template <typename... Args>
void Log(IProviderLogger* logger, LogLevel level, const wchar_t* format, Args... args)
{
    static_assert((std::is_scalar_v<Args> && ...), "pass strings as const wchar_t*");
    if (!IsLogLevelEnabled(logger, level)) {
        return;
    }
    WriteLogLine(logger, level, FormatString(format, args...));
}

// An error line for a failed call: the template's own arguments, then the code,
// then the system's text for it (see AppendErrorText).
template <typename... Args>
void LogFailure(IProviderLogger* logger, HRESULT code, const wchar_t* format, Args... args)
{
    static_assert((std::is_scalar_v<Args> && ...), "pass strings as const wchar_t*");
    if (!IsLogLevelEnabled(logger, LogLevel::Error)) {
        return;
    }
    const ErrorText error = AppendErrorText(format, code);
    const std::wstring text = error.systemText
                                  ? FormatString(error.format.c_str(), args..., code, error.systemText.get())
                                  : FormatString(error.format.c_str(), args..., code);
    WriteLogLine(logger, LogLevel::Error, text);
}

}  // namespace zeph
