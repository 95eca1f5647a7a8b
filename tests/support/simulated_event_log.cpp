#include "simulated_event_log.h"

#include <gtest/gtest.h>

namespace zeph::test {

ULONGLONG FileTimeOf(WORD year, WORD month, WORD day, WORD hour, WORD minute, WORD second, WORD milliseconds)
{
    SYSTEMTIME utc = {};
    utc.wYear = year;
    utc.wMonth = month;
    utc.wDay = day;
    utc.wHour = hour;
    utc.wMinute = minute;
    utc.wSecond = second;
    utc.wMilliseconds = milliseconds;
    FILETIME time = {};
    EXPECT_TRUE(::SystemTimeToFileTime(&utc, &time));
    return (static_cast<ULONGLONG>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
}

ULONGLONG UnixMillisecondsOf(ULONGLONG fileTime)
{
    return (fileTime - 116444736000000000ULL) / 10000ULL;
}

void WriteEvent(const wchar_t* channel, const wchar_t* publisher, USHORT eventId, ULONGLONG timeCreated,
                const std::wstring& message, DWORD flags)
{
    EVT_SIM_EVENT event = {};
    event.channel = channel;
    event.publisher = publisher;
    event.eventId = eventId;
    event.timeCreated = timeCreated;
    event.message = message.c_str();
    event.flags = flags;
    ASSERT_EQ(::EvtSimWriteEvent(&event), static_cast<DWORD>(ERROR_SUCCESS)) << "writing to " << channel;
}

void WaitForDeliveries()
{
    ASSERT_TRUE(::EvtSimWaitForDeliveries(60000)) << "deliveries did not finish within a minute";
}

EVT_SIM_COUNTERS Counters()
{
    EVT_SIM_COUNTERS counters = {};
    ::EvtSimGetCounters(&counters);
    return counters;
}

}  // namespace zeph::test
