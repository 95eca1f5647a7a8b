// What EvtRender and EvtFormatMessage produce for an event, with the API's
// two-call buffer protocol (ask for the size, then fill).
#pragma once

#include "event_record.h"

#include <windows.h>
#include <winevt.h>

#include <string>
#include <vector>

namespace evtsim {

// The value paths of a render context, resolved once when it is created.
struct RenderContext {
    enum class Field { EventId, TimeCreated, Provider, Channel, Unsupported };
    std::vector<Field> fields;

    static RenderContext FromPaths(DWORD count, LPCWSTR* paths);
};

// The handle EvtOpenPublisherMetadata returns: which publisher it stands for.
struct PublisherMetadata {
    std::wstring publisherKey;
};

// EvtRenderEventValues: one EVT_VARIANT per path, then the strings they point to, all in
// the caller's buffer; sizes in bytes. Returns ERROR_SUCCESS or ERROR_INSUFFICIENT_BUFFER;
// *bufferUsed and *propertyCount are set either way.
DWORD RenderValues(const RenderContext& context, const EventRecord& event, DWORD bufferSize, void* buffer,
                   DWORD* bufferUsed, DWORD* propertyCount);

// EvtFormatMessageEvent, sizes in wide characters including the terminator. The message is
// the event's rendered one if it has one, else its publisher's template filled with its
// insertion strings; with no metadata (NULL) only a rendered message can be formatted.
// Returns ERROR_SUCCESS, ERROR_INSUFFICIENT_BUFFER, ERROR_EVT_MESSAGE_NOT_FOUND, or (with
// the whole text in the buffer) ERROR_EVT_UNRESOLVED_VALUE_INSERT or
// ERROR_EVT_UNRESOLVED_PARAMETER_INSERT.
DWORD FormatEventMessage(const PublisherMetadata* metadata, const EventRecord& event, DWORD bufferSize, LPWSTR buffer,
                         DWORD* bufferUsed);

}  // namespace evtsim
