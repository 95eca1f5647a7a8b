// The levels of IProviderLogger::GetCategoryLevels and the category the provider
// logs under: the contract with the host's logger, which the host side's own
// logger (tools/support) reads from here too.
#pragma once

#include <windows.h>

namespace zeph {

enum class LogLevel : ULONG {
    Error = 0x1,
    Warning = 0x2,
    Info = 0x4,
};

// A level's bit in the levels the host's logger answers.
constexpr ULONG LevelBit(LogLevel level)
{
    return static_cast<ULONG>(level);
}

inline constexpr wchar_t kLogCategory[] = L"eventlog";

}  // namespace zeph
