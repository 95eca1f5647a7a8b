// One event of the layering service, and what its message says about the
// user's log-on.
#pragma once

#include <windows.h>

#include <string>

namespace zeph {

struct QuillonEvent {
    DWORD eventId = 0;
    ULONGLONG timeCreated = 0;  // FILETIME: 100 ns units since 1601-01-01 UTC
    std::wstring message;
};

enum class QuillonEventKind {
    LogOn,
    LogOnResponse,
    VolumesReady,
    LogOff,
    AllDone,
    Other,
};

// Tells the moment of the log-on sequence from the message text. The service
// has used two wordings over time; both are recognised. Comparisons are exact
// and case-sensitive, and a "starts with" pattern must stand at position 0.
QuillonEventKind ClassifyEventMessage(const std::wstring& message);

}  // namespace zeph
