// Events of the layering service written into the simulated event log, and
// sink writes in a form that compares exactly in one line.
#pragma once

#include "eventlog_sim.h"
#include "recording_sink.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zeph::test {

// Upper bound of every wait; reaching it means deliveries are broken.
constexpr DWORD kDeliveryWaitMs = 10000;

// Creation times 5 s apart, each 0.4567 ms past a whole millisecond so that
// the conversion must truncate; the comments give milliseconds since 1970.
constexpr ULONGLONG kTime1 = 133444736001234567ull;  // 1700000000123
constexpr ULONGLONG kTime2 = 133444736051234567ull;  // 1700000005123
constexpr ULONGLONG kTime3 = 133444736101234567ull;  // 1700000010123
constexpr ULONGLONG kTime4 = 133444736151234567ull;  // 1700000015123
constexpr ULONGLONG kTime5 = 133444736201234567ull;  // 1700000020123

inline void WriteQuillonEvent(const wchar_t* channel, const std::wstring& message, ULONGLONG time, DWORD flags = 0)
{
    const EVT_SIM_EVENT event{channel, L"drovesvc", 3, time, message.c_str(), flags};
    ASSERT_EQ(EvtSimWriteEvent(&event), static_cast<DWORD>(ERROR_SUCCESS)) << message;
}

inline void WaitForDeliveries()
{
    ASSERT_TRUE(EvtSimWaitForDeliveries(kDeliveryWaitMs)) << "deliveries did not finish";
}

// "key name = u:number" for VT_UI8, "key name = s:text" for VT_BSTR.
inline std::vector<std::wstring> Describe(const std::vector<SinkWrite>& writes)
{
    std::vector<std::wstring> lines;
    for (const SinkWrite& write : writes) {
        std::wstring value = write.type == VT_UI8   ? L"u:" + std::to_wstring(write.number)
                             : write.type == VT_BSTR ? L"s:" + write.text
                                                     : L"type " + std::to_wstring(write.type);
        lines.push_back(write.key + L" " + write.name + L" = " + value);
    }
    return lines;
}

}  // namespace zeph::test
