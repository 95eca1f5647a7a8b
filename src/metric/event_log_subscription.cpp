#include "metric/event_log_subscription.h"

#include "win/hresult.h"

#include <utility>

namespace zeph {

EventLogSubscription::~EventLogSubscription()
{
    // Stop deliveries before the callback they would call is destroyed.
    Close();
}

HRESULT EventLogSubscription::Subscribe(const wchar_t* channel, const wchar_t* query, Callback callback) noexcept
{
    // A live subscription is closed first: its deliveries must not race with
    // the callback being replaced below.
    Close();

    // The callback is in place before EvtSubscribe, so no delivery finds an
    // empty one; a failed subscription puts the earlier callback back.
    std::swap(callback_, callback);
    handle_.reset(::EvtSubscribe(nullptr, nullptr, channel, query, nullptr, this,
                                 &EventLogSubscription::OnSubscriptionEvent, EvtSubscribeToFutureEvents));
    const DWORD lastError = ::GetLastError();
    if (!handle_) {
        std::swap(callback_, callback);
    }
    return HResultFromWin32(static_cast<long>(lastError));
}

void EventLogSubscription::Close() noexcept
{
    handle_.reset();
}

DWORD WINAPI EventLogSubscription::OnSubscriptionEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context,
                                                       EVT_HANDLE event)
{
    if (action != EvtSubscribeActionError && action != EvtSubscribeActionDeliver) {
        return 0;
    }
    // Nothing may escape into the event log's thread; a delivery that fails
    // here is lost, as it would be had the event log dropped it.
    try {
        static_cast<EventLogSubscription*>(context)->callback_(event, static_cast<int>(action));
    } catch (...) {
    }
    return 0;
}

}  // namespace zeph
