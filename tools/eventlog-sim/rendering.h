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
    enum class Field { EventId, TimeCreated, Unsupported };
    std::vector<Field> fields;

    static RenderContext FromPaths(DWORD count, LPCWSTR* paths);
};

// The handle EvtOpenPublisherMetadata returns: which publisher it stands for.
struct PublisherMetadata {
    std::wstring publisherKey;
};

// EvtRenderEventValues: one EVT_VARIANT per path. Returns ERROR_SUCCESS or
// ERROR_INSUFFICIENT_BUFFER; *bufferUsed and *propertyCount are set either way.
DWORD RenderValues(const RenderContext& context, const EventRecord& event, DWORD bufferSize, void* buffer,
                   DWORD* bufferUsed, DWORD* propertyCount);

// EvtFormatMessageEvent, sizes in wide characters including the terminator.
// Returns ERROR_SUCCESS, ERROR_INSUFFICIENT_BUFFER or ERROR_EVT_MESSAGE_NOT_FOUND.
DWORD FormatEventMessage(const PublisherMetadata* metadata, const EventRecord& event, DWORD bufferSize,
                         LPWSTR buffer, DWORD* bufferUsed);

}  // namespace evtsim
