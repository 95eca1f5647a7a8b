// Writing events into the simulated event log, and reading its counters.
#pragma once

#include "eventlog_sim.h"

#include <windows.h>

#include <string>

namespace zeph::test {

// FILETIME (as a 64-bit count) of a UTC date and time.
ULONGLONG FileTimeOf(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second, WORD milliseconds = 0);

// Milliseconds since 1970-01-01 UTC of a FILETIME.
ULONGLONG UnixMillisecondsOf(ULONGLONG fileTime);

// Writes one event; fails the test if the simulator refuses it.
void WriteEvent(const wchar_t* channel, const wchar_t* publisher, USHORT eventId, ULONGLONG timeCreated,
                const std::wstring& message, DWORD flags = 0);

// Waits (bounded) until every delivery is done; fails the test on timeout.
void WaitForDeliveries();

EVT_SIM_COUNTERS Counters();

}  // namespace zeph::test
