// A subscriber of our own beside the provider's: it formats every event
// delivered to it as a host's event viewer would (the "Application Error"
// publisher's metadata, the two-call protocol) and keeps the messages in
// delivery order, to say what message an event carries. Subscribes on
// construction, unsubscribes on destruction; failures are test failures.
// Deliveries come on the event log's thread; read the messages after
// waiting for them.
#pragma once

#include "metric/event_log_handle.h"

#include <windows.h>
#include <winevt.h>

#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace zeph::fuzz {

class MessageRecorder {
public:
    MessageRecorder(const wchar_t* channel, const wchar_t* publisher);
    ~MessageRecorder() = default;
    MessageRecorder(const MessageRecorder&) = delete;
    MessageRecorder& operator=(const MessageRecorder&) = delete;

    // One per event delivered: its message to its terminator, or nothing when it cannot be formatted.
    std::vector<std::optional<std::wstring>> Messages() const;

private:
    static DWORD WINAPI OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event);

    std::wstring publisher_;
    mutable std::mutex mutex_;
    std::vector<std::optional<std::wstring>> messages_;
    unique_evt_handle subscription_;  // last: closed (deliveries stopped) before the rest goes
};

}  // namespace zeph::fuzz
