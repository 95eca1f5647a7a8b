// One written event, shared by every subscription it is queued for and by the
// EVENT handles its callbacks get.
#pragma once

#include <windows.h>

#include <string>

namespace evtsim {

struct EventRecord {
    std::wstring publisher;
    std::wstring publisherKey;  // folded, for case-insensitive comparisons
    USHORT eventId = 0;
    ULONGLONG timeCreated = 0;
    std::wstring message;
    DWORD flags = 0;  // EVT_SIM_* flags
};

}  // namespace evtsim
