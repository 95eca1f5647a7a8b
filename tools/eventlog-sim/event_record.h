// One written event, shared by every subscription it is queued for and by the
// EVENT handles its callbacks get.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace evtsim {

struct EventRecord {
    std::wstring channel;
    std::wstring publisher;
    std::wstring publisherKey;  // folded, for case-insensitive comparisons
    USHORT eventId = 0;
    ULONGLONG timeCreated = 0;
    // The event's data: %1, %2, ... of the publisher's message template.
    std::vector<std::wstring> insertions;
    // A message rendered where the event was recorded (RenderingInfo of a forwarded or
    // saved event, or the literal text of EvtSimWriteEvent); it needs no template.
    std::optional<std::wstring> renderedMessage;
    DWORD flags = 0;  // EVT_SIM_* flags
};

}  // namespace evtsim
