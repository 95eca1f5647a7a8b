// FILETIME values as the 64-bit counts of 100 ns units since 1601-01-01 UTC that
// the event log and the metrics carry, and the 1970 epoch of millisecond stamps.
#pragma once

#include <windows.h>

namespace zeph {

// FILETIME of 1970-01-01 00:00 UTC, and 100 ns units per millisecond.
inline constexpr ULONGLONG kUnixEpochAsFileTime = 116444736000000000ull;
inline constexpr ULONGLONG kFileTimeUnitsPerMs = 10000;

// Milliseconds since 1970-01-01 UTC of a FILETIME at or after it.
constexpr ULONGLONG UnixMillisecondsOf(ULONGLONG fileTime) noexcept
{
    return (fileTime - kUnixEpochAsFileTime) / kFileTimeUnitsPerMs;
}

constexpr ULONGLONG FileTimeCount(const FILETIME& time) noexcept
{
    return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

constexpr FILETIME FileTimeOfCount(ULONGLONG count) noexcept
{
    return FILETIME{static_cast<DWORD>(count), static_cast<DWORD>(count >> 32)};
}

}  // namespace zeph
