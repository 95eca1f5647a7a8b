// The exported functions: the Event Log API subset the provider calls, and the
// control API of eventlog_sim.h. Each one validates its arguments the way the real
// API does, turns C++ exceptions into Win32 errors, and sets the last error last,
// after every destructor of its work has run.
#include "counters.h"
#include "event_log.h"
#include "handle_table.h"
#include "message_templates.h"
#include "names.h"
#include "pending_deliveries.h"
#include "query_filter.h"
#include "rendering.h"
#include "subscription.h"

#include <windows.h>
#include <winevt.h>

#include <new>
#include <optional>
#include <system_error>

#include "eventlog_sim.h"

using namespace evtsim;

namespace {

template <class T>
struct Outcome {
    T value;
    DWORD error;
};

// Runs the body of an export: no exception may cross the DLL boundary.
template <class T, class Body>
T Api(T failure, Body&& body) noexcept
{
    Outcome<T> outcome{failure, ERROR_INTERNAL_ERROR};
    try {
        outcome = body();
    } catch (const std::bad_alloc&) {
        outcome = {failure, ERROR_OUTOFMEMORY};
    } catch (const std::system_error&) {  // a delivery thread could not be started
        outcome = {failure, ERROR_NO_SYSTEM_RESOURCES};
    } catch (...) {
    }
    SetLastError(outcome.error);
    return outcome.value;
}

// The control exports return their status instead of setting the last error.
template <class Body>
DWORD Status(Body&& body) noexcept
{
    try {
        return body();
    } catch (const std::bad_alloc&) {
        return ERROR_OUTOFMEMORY;
    } catch (const std::system_error&) {
        return ERROR_NO_SYSTEM_RESOURCES;
    } catch (...) {
        return ERROR_INTERNAL_ERROR;
    }
}

Outcome<EVT_HANDLE> Failed(DWORD error)
{
    return {nullptr, error};
}
Outcome<BOOL> Refused(DWORD error)
{
    return {FALSE, error};
}

// What the handle table holds for a subscription handle.
struct SubscriptionHandle {
    std::shared_ptr<Channel> channel;
    std::shared_ptr<Subscription> subscription;
};

}  // namespace

extern "C" {

EVT_HANDLE WINAPI EvtSubscribe(EVT_HANDLE Session, HANDLE SignalEvent, LPCWSTR ChannelPath, LPCWSTR Query,
                               EVT_HANDLE Bookmark, PVOID Context, EVT_SUBSCRIBE_CALLBACK Callback, DWORD Flags)
{
    (void)Bookmark;  // only read by EvtSubscribeStartAfterBookmark, which is not supported
    return Api<EVT_HANDLE>(nullptr, [&] {
        if (Session != nullptr) {
            return Failed(ERROR_NOT_SUPPORTED);  // remote logs
        }
        if (Callback == nullptr) {
            return Failed(ERROR_INVALID_PARAMETER);
        }
        if (SignalEvent != nullptr) {
            return Failed(ERROR_INVALID_PARAMETER);  // push and pull exclude each other
        }
        if (Flags != EvtSubscribeToFutureEvents) {
            return Failed(ERROR_NOT_SUPPORTED);
        }

        std::shared_ptr<Channel> channel = ChannelPath ? Log().FindChannel(ChannelPath) : nullptr;
        if (!channel) {
            return Failed(ERROR_EVT_CHANNEL_NOT_FOUND);
        }
        std::optional<QueryFilter> filter = QueryFilter::Parse(Query);
        if (!filter) {
            return Failed(ERROR_EVT_INVALID_QUERY);
        }

        auto handle = std::make_shared<SubscriptionHandle>();
        handle->channel = channel;
        handle->subscription = std::make_shared<Subscription>(std::move(*filter), Context, Callback);
        handle->subscription->Start();
        try {
            channel->Attach(handle->subscription);
        } catch (...) {
            handle->subscription->Close();
            throw;
        }
        try {
            return Outcome<EVT_HANDLE>{Handles().Add(EVT_SIM_KIND_SUBSCRIPTION, handle), ERROR_SUCCESS};
        } catch (...) {
            channel->Detach(handle->subscription.get());
            handle->subscription->Close();
            throw;
        }
    });
}

EVT_HANDLE WINAPI EvtCreateRenderContext(DWORD ValuePathsCount, LPCWSTR* ValuePaths, DWORD Flags)
{
    return Api<EVT_HANDLE>(nullptr, [&] {
        if (Flags != EvtRenderContextValues) {
            return Failed(ERROR_NOT_SUPPORTED);
        }
        if (ValuePathsCount == 0 || ValuePaths == nullptr) {
            return Failed(ERROR_INVALID_PARAMETER);
        }
        for (DWORD i = 0; i < ValuePathsCount; ++i) {
            if (ValuePaths[i] == nullptr) {
                return Failed(ERROR_INVALID_PARAMETER);
            }
        }
        auto context = std::make_shared<RenderContext>(RenderContext::FromPaths(ValuePathsCount, ValuePaths));
        return Outcome<EVT_HANDLE>{Handles().Add(EVT_SIM_KIND_RENDER_CONTEXT, context), ERROR_SUCCESS};
    });
}

BOOL WINAPI EvtRender(EVT_HANDLE Context, EVT_HANDLE Fragment, DWORD Flags, DWORD BufferSize, PVOID Buffer,
                      PDWORD BufferUsed, PDWORD PropertyCount)
{
    return Api<BOOL>(FALSE, [&] {
        if (Flags != EvtRenderEventValues) {
            return Refused(ERROR_NOT_SUPPORTED);
        }
        auto context = Handles().Find<RenderContext>(Context, EVT_SIM_KIND_RENDER_CONTEXT);
        auto event = Handles().Find<const EventRecord>(Fragment, EVT_SIM_KIND_EVENT);
        if (!context || !event) {
            return Refused(ERROR_INVALID_HANDLE);
        }
        if (BufferUsed == nullptr || PropertyCount == nullptr) {
            return Refused(ERROR_INVALID_PARAMETER);
        }
        const DWORD error = RenderValues(*context, *event, BufferSize, Buffer, BufferUsed, PropertyCount);
        return Outcome<BOOL>{error == ERROR_SUCCESS, error};
    });
}

EVT_HANDLE WINAPI EvtOpenPublisherMetadata(EVT_HANDLE Session, LPCWSTR PublisherId, LPCWSTR LogFilePath, LCID Locale,
                                           DWORD Flags)
{
    (void)LogFilePath;  // an archived log's metadata would be the same publishers here
    (void)Locale;       // messages exist in one language only
    return Api<EVT_HANDLE>(nullptr, [&] {
        if (Session != nullptr) {
            return Failed(ERROR_NOT_SUPPORTED);
        }
        if (PublisherId == nullptr || Flags != 0) {
            return Failed(ERROR_INVALID_PARAMETER);
        }
        auto metadata = std::make_shared<PublisherMetadata>();
        metadata->publisherKey = FoldCase(PublisherId);
        if (!Log().KnowsPublisher(metadata->publisherKey)) {
            return Failed(ERROR_EVT_PUBLISHER_METADATA_NOT_FOUND);
        }
        return Outcome<EVT_HANDLE>{Handles().Add(EVT_SIM_KIND_PUBLISHER_METADATA, metadata), ERROR_SUCCESS};
    });
}

BOOL WINAPI EvtFormatMessage(EVT_HANDLE PublisherMetadata, EVT_HANDLE Event, DWORD MessageId, DWORD ValueCount,
                             PEVT_VARIANT Values, DWORD Flags, DWORD BufferSize, LPWSTR Buffer, PDWORD BufferUsed)
{
    (void)MessageId;  // only read by EvtFormatMessageId
    return Api<BOOL>(FALSE, [&] {
        if (Flags != EvtFormatMessageEvent) {
            return Refused(ERROR_NOT_SUPPORTED);
        }
        std::shared_ptr<evtsim::PublisherMetadata> metadata;
        if (PublisherMetadata != nullptr) {
            metadata = Handles().Find<evtsim::PublisherMetadata>(PublisherMetadata, EVT_SIM_KIND_PUBLISHER_METADATA);
            if (!metadata) {
                return Refused(ERROR_INVALID_HANDLE);
            }
        }
        auto event = Handles().Find<const EventRecord>(Event, EVT_SIM_KIND_EVENT);
        if (!event) {
            return Refused(ERROR_INVALID_HANDLE);
        }
        if (BufferUsed == nullptr || (ValueCount != 0 && Values == nullptr)) {
            return Refused(ERROR_INVALID_PARAMETER);
        }
        if (ValueCount != 0) {
            return Refused(ERROR_NOT_SUPPORTED);  // no overriding the event's insertion strings
        }
        const DWORD error = FormatEventMessage(metadata.get(), *event, BufferSize, Buffer, BufferUsed);
        return Outcome<BOOL>{error == ERROR_SUCCESS, error};
    });
}

BOOL WINAPI EvtClose(EVT_HANDLE Object)
{
    return Api<BOOL>(FALSE, [&] {
        EVT_SIM_HANDLE_KIND kind{};
        std::shared_ptr<void> object;
        if (Handles().Close(Object, &kind, &object) != HandleTable::CloseResult::Closed) {
            return Refused(ERROR_INVALID_HANDLE);
        }
        if (kind == EVT_SIM_KIND_SUBSCRIPTION) {
            // Off the channel first, so no new deliveries are queued; then stop the thread.
            auto handle = std::static_pointer_cast<SubscriptionHandle>(object);
            handle->channel->Detach(handle->subscription.get());
            handle->subscription->Close();
        }
        return Outcome<BOOL>{TRUE, ERROR_SUCCESS};
    });
}

EVT_HANDLE WINAPI EvtOpenChannelConfig(EVT_HANDLE Session, LPCWSTR ChannelPath, DWORD Flags)
{
    return Api<EVT_HANDLE>(nullptr, [&] {
        if (Session != nullptr) {
            return Failed(ERROR_NOT_SUPPORTED);
        }
        if (ChannelPath == nullptr || Flags != 0) {
            return Failed(ERROR_INVALID_PARAMETER);
        }
        std::shared_ptr<Channel> channel = Log().FindChannel(ChannelPath);
        if (!channel) {
            return Failed(ERROR_EVT_CHANNEL_NOT_FOUND);
        }
        return Outcome<EVT_HANDLE>{Handles().Add(EVT_SIM_KIND_CHANNEL_CONFIG, channel), ERROR_SUCCESS};
    });
}

// Nothing is kept once delivered, so a query of a channel finds no past events.
EVT_HANDLE WINAPI EvtQuery(EVT_HANDLE Session, LPCWSTR Path, LPCWSTR Query, DWORD Flags)
{
    return Api<EVT_HANDLE>(nullptr, [&] {
        constexpr DWORD kDirections = EvtQueryForwardDirection | EvtQueryReverseDirection;
        if (Session != nullptr) {
            return Failed(ERROR_NOT_SUPPORTED);
        }
        if ((Flags & ~(EvtQueryChannelPath | EvtQueryFilePath | kDirections | EvtQueryTolerateQueryErrors)) != 0 ||
            (Flags & kDirections) == kDirections ||
            ((Flags & EvtQueryChannelPath) != 0) == ((Flags & EvtQueryFilePath) != 0)) {  // exactly one of them
            return Failed(ERROR_INVALID_PARAMETER);
        }
        // Log files and structured XML queries (no path) are not simulated.
        if ((Flags & EvtQueryFilePath) != 0 || Path == nullptr) {
            return Failed(ERROR_NOT_SUPPORTED);
        }
        std::shared_ptr<Channel> channel = Log().FindChannel(Path);
        if (!channel) {
            return Failed(ERROR_EVT_CHANNEL_NOT_FOUND);
        }
        if (!QueryFilter::Parse(Query)) {
            return Failed(ERROR_EVT_INVALID_QUERY);
        }
        return Outcome<EVT_HANDLE>{Handles().Add(EVT_SIM_KIND_QUERY, channel), ERROR_SUCCESS};
    });
}

BOOL WINAPI EvtNext(EVT_HANDLE ResultSet, DWORD EventsSize, EVT_HANDLE* Events, DWORD Timeout, DWORD Flags,
                    PDWORD Returned)
{
    (void)Timeout;  // the result is known at once
    return Api<BOOL>(FALSE, [&] {
        // Pull subscriptions (a signal event) are not offered, so only query results have a next event.
        if (!Handles().Find<Channel>(ResultSet, EVT_SIM_KIND_QUERY)) {
            return Refused(ERROR_INVALID_HANDLE);
        }
        if (EventsSize == 0 || Events == nullptr || Returned == nullptr || Flags != 0) {
            return Refused(ERROR_INVALID_PARAMETER);
        }
        *Returned = 0;
        return Refused(ERROR_NO_MORE_ITEMS);
    });
}

DWORD WINAPI EvtSimAddChannel(LPCWSTR channel)
{
    return Status([&] { return channel ? Log().AddChannel(channel) : DWORD{ERROR_INVALID_PARAMETER}; });
}

DWORD WINAPI EvtSimWriteEvent(const EVT_SIM_EVENT* event)
{
    return Status([&] { return event ? Log().Write(*event) : DWORD{ERROR_INVALID_PARAMETER}; });
}

DWORD WINAPI EvtSimWriteEventData(const EVT_SIM_EVENT_DATA* event)
{
    return Status([&] { return event ? Log().Write(*event) : DWORD{ERROR_INVALID_PARAMETER}; });
}

DWORD WINAPI EvtSimSetMessageTemplate(LPCWSTR publisher, USHORT eventId, LPCWSTR messageTemplate)
{
    return Status([&] {
        if (publisher == nullptr || *publisher == L'\0' || messageTemplate == nullptr) {
            return DWORD{ERROR_INVALID_PARAMETER};
        }
        Templates().Set(FoldCase(publisher), eventId, messageTemplate);
        return DWORD{ERROR_SUCCESS};
    });
}

DWORD WINAPI EvtSimDeliverError(LPCWSTR channel, DWORD errorCode)
{
    return Status([&] { return channel ? Log().DeliverError(channel, errorCode) : DWORD{ERROR_INVALID_PARAMETER}; });
}

BOOL WINAPI EvtSimWaitForDeliveries(DWORD timeoutMs)
{
    try {
        return Pending().WaitIdle(timeoutMs) ? TRUE : FALSE;
    } catch (...) {
        return FALSE;
    }
}

void WINAPI EvtSimGetCounters(EVT_SIM_COUNTERS* counters)
{
    if (counters != nullptr) {
        *counters = GlobalCounters().Snapshot();
    }
}

void WINAPI EvtSimResetCounters(void)
{
    GlobalCounters().Reset();
}

LONG64 WINAPI EvtSimOpenHandles(enum EVT_SIM_HANDLE_KIND kind)
{
    if (kind < 0 || kind >= EVT_SIM_KIND_COUNT) {
        return 0;
    }
    try {
        return Handles().OpenCount(kind);
    } catch (...) {
        return 0;
    }
}

BOOL WINAPI EvtSimIsSimulator(void)
{
    return TRUE;
}

// Nothing to set up or tear down: state is created on first use and never destroyed,
// and delivery threads are never waited for here, where the loader lock is held.
BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID)
{
    return TRUE;
}

}  // extern "C"
