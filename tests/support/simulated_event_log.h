// Writing events into the simulated event log, and reading its counters.
#pragma once

#include "eventlog-sim/eventlog_sim.h"
#include "win/file_time.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <string>

namespace zeph::test {

// FILETIME (as a 64-bit count) of a UTC date and time.
inline ULONGLONG FileTimeOf(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second, WORD milliseconds = 0)
{
    const SYSTEMTIME utc = {year, month, 0, day, hour, minute, second, milliseconds};
    FILETIME time = {};
    EXPECT_TRUE(::SystemTimeToFileTime(&utc, &time));
    return FileTimeCount(time);
}

// Writes one event; fails the test if the simulator refuses it.
inline void WriteEvent(const wchar_t* channel, const wchar_t* publisher, USHORT eventId, ULONGLONG timeCreated,
                       const std::wstring& message, DWORD flags = 0)
{
    const EVT_SIM_EVENT event = {channel, publisher, eventId, timeCreated, message.c_str(), flags};
    ASSERT_EQ(::EvtSimWriteEvent(&event), static_cast<DWORD>(ERROR_SUCCESS)) << "writing to " << channel;
}

// Waits (bounded) until every delivery is done; fails the test on timeout.
inline void WaitForDeliveries()
{
    ASSERT_TRUE(::EvtSimWaitForDeliveries(60000)) << "deliveries did not finish within a minute";
}

inline EVT_SIM_COUNTERS Counters()
{
    EVT_SIM_COUNTERS counters = {};
    ::EvtSimGetCounters(&counters);
    return counters;
}

}  // namespace zeph::test
