// Control exports of the simulated event log (wevtapi.dll built by this project).
//
// The simulator implements the Event Log API functions the provider calls
// (EvtSubscribe, EvtCreateRenderContext, EvtRender, EvtOpenPublisherMetadata,
// EvtFormatMessage, EvtClose), and those zeph-host checks a configuration with
// (EvtOpenChannelConfig, EvtQuery, EvtNext), in memory, with the real API's error codes and
// callbacks on threads of its own. These extra exports let tests, the demo host
// and the benchmarks write events into channels and check handle accounting.
// They do not exist in the real wevtapi.dll: callers that may run against the
// real one look them up with GetProcAddress.
#pragma once

#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

// Event flags for EVT_SIM_EVENT::flags.
#define EVT_SIM_UNFORMATTABLE 0x1u  // EvtFormatMessage fails with 15027 (ERROR_EVT_MESSAGE_NOT_FOUND)
#define EVT_SIM_NO_TIME 0x2u        // "Event/System/TimeCreated/@SystemTime" renders as EvtVarTypeNull
#define EVT_SIM_NO_EVENT_ID 0x4u    // "Event/System/EventID" renders as EvtVarTypeNull

typedef struct EVT_SIM_EVENT {
    LPCWSTR channel;    // must exist ("Application", "System", or added with EvtSimAddChannel)
    LPCWSTR publisher;  // provider name; also becomes known to EvtOpenPublisherMetadata
    USHORT eventId;
    ULONGLONG timeCreated;  // FILETIME as a 64-bit count of 100 ns units since 1601-01-01 UTC
    LPCWSTR message;        // the event's own message, returned by EvtFormatMessage with its
                            // publisher's metadata or none (may be empty, never NULL)
    DWORD flags;            // EVT_SIM_* flags
} EVT_SIM_EVENT;

// An event as Windows stores it: its data (insertion strings, %1 to %n of the publisher's
// message template) and, for an event recorded elsewhere, the message rendered there.
typedef struct EVT_SIM_EVENT_DATA {
    LPCWSTR channel;
    LPCWSTR publisher;
    USHORT eventId;
    ULONGLONG timeCreated;
    DWORD insertionCount;
    const LPCWSTR* insertions;  // insertionCount strings, each may be empty, never NULL
    LPCWSTR renderedMessage;    // RenderingInfo/Message, or NULL: the publisher's template formats it
    DWORD flags;                // EVT_SIM_* flags
} EVT_SIM_EVENT_DATA;

// Handle kinds counted by the simulator.
enum EVT_SIM_HANDLE_KIND {
    EVT_SIM_KIND_SUBSCRIPTION = 0,
    EVT_SIM_KIND_RENDER_CONTEXT = 1,
    EVT_SIM_KIND_PUBLISHER_METADATA = 2,
    EVT_SIM_KIND_EVENT = 3,  // handles passed to subscription callbacks
    EVT_SIM_KIND_CHANNEL_CONFIG = 4,
    EVT_SIM_KIND_QUERY = 5,  // EvtQuery result sets
    EVT_SIM_KIND_COUNT = 6
};

typedef struct EVT_SIM_COUNTERS {
    LONG64 opened[EVT_SIM_KIND_COUNT];  // handles handed out, by kind
    LONG64 closed[EVT_SIM_KIND_COUNT];  // handles closed with EvtClose (events: by the simulator after the callback)
    LONG64 doubleCloses;                // EvtClose of a handle that was already closed
    LONG64 unknownCloses;               // EvtClose of a value that was never a handle
    LONG64 eventsWritten;               // EvtSimWriteEvent calls that succeeded
    LONG64 deliveries;                  // callbacks made with EvtSubscribeActionDeliver
    LONG64 errorDeliveries;             // callbacks made with EvtSubscribeActionError
    LONG64 deliveriesAfterClose;        // callbacks started after their subscription was closed (a defect)
} EVT_SIM_COUNTERS;

// Adds a channel (names compare case-insensitively). Returns ERROR_SUCCESS or ERROR_ALREADY_EXISTS.
DWORD WINAPI EvtSimAddChannel(LPCWSTR channel);

// Writes one event: every open subscription of the channel whose query matches it gets a
// delivery on its own thread, in write order. Returns ERROR_SUCCESS, 15007
// (ERROR_EVT_CHANNEL_NOT_FOUND) or ERROR_INVALID_PARAMETER.
DWORD WINAPI EvtSimWriteEvent(const EVT_SIM_EVENT* event);

// Writes an event given by its data. EvtFormatMessage uses its rendered message if it has
// one, else the template set for its publisher and id (EvtSimSetMessageTemplate; "Application
// Error" 1000 is built in), else fails with 15027. Returns as EvtSimWriteEvent.
DWORD WINAPI EvtSimWriteEventData(const EVT_SIM_EVENT_DATA* event);

// Sets the message template of a publisher's event id (%1 to %99 insertions, %% for %);
// the publisher becomes known to EvtOpenPublisherMetadata. Returns ERROR_SUCCESS or
// ERROR_INVALID_PARAMETER.
DWORD WINAPI EvtSimSetMessageTemplate(LPCWSTR publisher, USHORT eventId, LPCWSTR messageTemplate);

// Queues a delivery with EvtSubscribeActionError and the given Win32 code as the event
// argument to every open subscription of the channel. Returns as EvtSimWriteEvent.
DWORD WINAPI EvtSimDeliverError(LPCWSTR channel, DWORD errorCode);

// Waits until every queued delivery has been made and no callback is running.
// Returns TRUE, or FALSE when the timeout (milliseconds) passed first.
BOOL WINAPI EvtSimWaitForDeliveries(DWORD timeoutMs);

// Copies the counters (since load or the last EvtSimResetCounters).
void WINAPI EvtSimGetCounters(EVT_SIM_COUNTERS* counters);
void WINAPI EvtSimResetCounters(void);

// Number of handles of a kind that are open now.
LONG64 WINAPI EvtSimOpenHandles(enum EVT_SIM_HANDLE_KIND kind);

// TRUE: lets a caller that loaded some wevtapi.dll tell the simulator from the real one.
BOOL WINAPI EvtSimIsSimulator(void);

#ifdef __cplusplus
}
#endif
