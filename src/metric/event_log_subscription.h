// A push subscription to future events of one channel, and the function
// object that receives its deliveries.
//
// Ownership: the holder owns the subscription handle and the callback. Its
// address is the context given to the event log, so it must not move while
// subscribed (it lives inside its metric).
// Threads: Subscribe and Close run on the host's thread; the callback runs on
// the event log's delivery threads. Close waits for a callback in flight, so
// once it returns nothing the callback captured is touched again.
#pragma once

#include "metric/event_log_handle.h"

#include <windows.h>
#include <winevt.h>

#include <functional>

namespace zeph {

class EventLogSubscription {
public:
    // (event, action): for action 0 (EvtSubscribeActionError) the event
    // argument is a Win32 error code, not a handle.
    using Callback = std::function<void(EVT_HANDLE event, int action)>;

    EventLogSubscription() = default;
    ~EventLogSubscription();
    EventLogSubscription(const EventLogSubscription&) = delete;
    EventLogSubscription& operator=(const EventLogSubscription&) = delete;

    // Opens a push subscription for future events on the local machine and
    // returns the last error after the attempt, as an HRESULT (the caller
    // decides whether that matters). On failure the handle is null and the
    // earlier callback stays. Never throws.
    [[nodiscard]] HRESULT Subscribe(const wchar_t* channel, const wchar_t* query, Callback callback) noexcept;

    // Ends the subscription (the callback is kept). Closing twice does nothing.
    void Close() noexcept;

    EVT_HANDLE Handle() const noexcept { return handle_.get(); }

    // The callback registered with EvtSubscribe; always returns 0.
    static DWORD WINAPI OnSubscriptionEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event);

private:
    unique_evt_handle handle_;
    Callback callback_;
};

}  // namespace zeph
