#include "rendering.h"

#include "eventlog_sim.h"
#include "message_templates.h"

#include <cstring>
#include <string>
#include <string_view>

namespace evtsim {

RenderContext RenderContext::FromPaths(DWORD count, LPCWSTR* paths)
{
    RenderContext context;
    context.fields.reserve(count);
    for (DWORD i = 0; i < count; ++i) {
        const std::wstring_view path = paths[i];
        if (path == L"Event/System/EventID") {
            context.fields.push_back(Field::EventId);
        } else if (path == L"Event/System/TimeCreated/@SystemTime") {
            context.fields.push_back(Field::TimeCreated);
        } else if (path == L"Event/System/Provider/@Name") {
            context.fields.push_back(Field::Provider);
        } else if (path == L"Event/System/Channel") {
            context.fields.push_back(Field::Channel);
        } else {
            // A path that selects nothing renders as a null value, not an error.
            context.fields.push_back(Field::Unsupported);
        }
    }
    return context;
}

namespace {

const std::wstring* StringField(RenderContext::Field field, const EventRecord& event)
{
    switch (field) {
    case RenderContext::Field::Provider:
        return &event.publisher;
    case RenderContext::Field::Channel:
        return &event.channel;
    default:
        return nullptr;
    }
}

}  // namespace

DWORD RenderValues(const RenderContext& context, const EventRecord& event, DWORD bufferSize, void* buffer,
                   DWORD* bufferUsed, DWORD* propertyCount)
{
    const DWORD count = static_cast<DWORD>(context.fields.size());
    // The strings follow the array, in the same buffer: the size asked for counts them, in bytes.
    size_t needed = count * sizeof(EVT_VARIANT);
    for (RenderContext::Field field : context.fields) {
        if (const std::wstring* text = StringField(field, event)) {
            needed += (text->size() + 1) * sizeof(wchar_t);
        }
    }
    *bufferUsed = static_cast<DWORD>(needed);
    *propertyCount = count;
    if (buffer == nullptr || bufferSize < needed) {
        return ERROR_INSUFFICIENT_BUFFER;
    }

    BYTE* strings = static_cast<BYTE*>(buffer) + count * sizeof(EVT_VARIANT);
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
        case RenderContext::Field::Provider:
        case RenderContext::Field::Channel: {
            const std::wstring& text = *StringField(context.fields[i], event);
            const size_t bytes = (text.size() + 1) * sizeof(wchar_t);
            std::memcpy(strings, text.c_str(), bytes);
            value.Type = EvtVarTypeString;
            value.StringVal = reinterpret_cast<LPCWSTR>(strings);
            strings += bytes;
            break;
        }
        case RenderContext::Field::Unsupported:
            break;
        }
        // The caller's buffer need not be aligned for EVT_VARIANT.
        std::memcpy(static_cast<BYTE*>(buffer) + i * sizeof value, &value, sizeof value);
    }
    return ERROR_SUCCESS;
}

DWORD FormatEventMessage(const PublisherMetadata* metadata, const EventRecord& event, DWORD bufferSize, LPWSTR buffer,
                         DWORD* bufferUsed)
{
    if (event.flags & EVT_SIM_UNFORMATTABLE) {
        return ERROR_EVT_MESSAGE_NOT_FOUND;
    }
    // Another publisher's metadata holds no message for this event.
    if (metadata != nullptr && metadata->publisherKey != event.publisherKey) {
        return ERROR_EVT_MESSAGE_NOT_FOUND;
    }

    std::wstring message;
    DWORD result = ERROR_SUCCESS;
    if (event.renderedMessage) {
        message = *event.renderedMessage;
    } else if (metadata == nullptr) {
        return ERROR_EVT_MESSAGE_NOT_FOUND;  // without a formatting context only a rendered message will do
    } else if (auto text = Templates().Find(event.publisherKey, event.eventId)) {
        result = ExpandTemplate(*text, event.insertions, &message);
    } else {
        return ERROR_EVT_MESSAGE_NOT_FOUND;
    }

    const size_t needed = message.size() + 1;
    if (needed > MAXDWORD) {
        return ERROR_EVT_MESSAGE_NOT_FOUND;
    }
    *bufferUsed = static_cast<DWORD>(needed);
    if (buffer == nullptr || bufferSize < needed) {
        return ERROR_INSUFFICIENT_BUFFER;
    }
    std::memcpy(buffer, message.c_str(), needed * sizeof(wchar_t));
    return result;
}

}  // namespace evtsim
