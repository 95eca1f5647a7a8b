#include "rendering.h"

#include "eventlog_sim.h"

#include <cstring>
#include <string_view>

namespace evtsim {

RenderContext RenderContext::FromPaths(DWORD count, LPCWSTR* paths) {
    RenderContext context;
    context.fields.reserve(count);
    for (DWORD i = 0; i < count; ++i) {
        const std::wstring_view path = paths[i];
        if (path == L"Event/System/EventID") {
            context.fields.push_back(Field::EventId);
        } else if (path == L"Event/System/TimeCreated/@SystemTime") {
            context.fields.push_back(Field::TimeCreated);
        } else {
            // A path that selects nothing renders as a null value, not an error.
            context.fields.push_back(Field::Unsupported);
        }
    }
    return context;
}

DWORD RenderValues(const RenderContext& context, const EventRecord& event, DWORD bufferSize, void* buffer,
                   DWORD* bufferUsed, DWORD* propertyCount) {
    const DWORD count = static_cast<DWORD>(context.fields.size());
    const DWORD needed = count * static_cast<DWORD>(sizeof(EVT_VARIANT));
    *bufferUsed = needed;
    *propertyCount = count;
    if (buffer == nullptr || bufferSize < needed) return ERROR_INSUFFICIENT_BUFFER;

    for (DWORD i = 0; i < count; ++i) {
        EVT_VARIANT value;
        std::memset(&value, 0, sizeof value);
        value.Type = EvtVarTypeNull;
        switch (context.fields[i]) {
        case RenderContext::Field::EventId:
            if (!(event.flags & EVT_SIM_NO_EVENT_ID)) {
                value.Type = EvtVarTypeUInt16;
                value.UInt16Val = event.eventId;
            }
            break;
        case RenderContext::Field::TimeCreated:
            if (!(event.flags & EVT_SIM_NO_TIME)) {
                value.Type = EvtVarTypeFileTime;
                value.FileTimeVal = event.timeCreated;
            }
            break;
        case RenderContext::Field::Unsupported:
            break;
        }
        // The caller's buffer need not be aligned for EVT_VARIANT.
        std::memcpy(static_cast<BYTE*>(buffer) + i * sizeof value, &value, sizeof value);
    }
    return ERROR_SUCCESS;
}

DWORD FormatEventMessage(const PublisherMetadata* metadata, const EventRecord& event, DWORD bufferSize,
                         LPWSTR buffer, DWORD* bufferUsed) {
    if (event.flags & EVT_SIM_UNFORMATTABLE) return ERROR_EVT_MESSAGE_NOT_FOUND;
    // Another publisher's metadata holds no message for this event.
    if (metadata != nullptr && metadata->publisherKey != event.publisherKey) return ERROR_EVT_MESSAGE_NOT_FOUND;

    const size_t needed = event.message.size() + 1;
    if (needed > MAXDWORD) return ERROR_EVT_MESSAGE_NOT_FOUND;
    *bufferUsed = static_cast<DWORD>(needed);
    if (buffer == nullptr || bufferSize < needed) return ERROR_INSUFFICIENT_BUFFER;
    std::memcpy(buffer, event.message.c_str(), needed * sizeof(wchar_t));
    return ERROR_SUCCESS;
}

}  // namespace evtsim
