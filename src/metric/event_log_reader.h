// Reading one delivered event: chosen values, and the formatted message.
// Both return Win32 codes and never log; they throw only what the caller's own
// callback throws (a failed buffer allocation is ERROR_OUTOFMEMORY). Called on
// event delivery threads.
#pragma once

#include <windows.h>
#include <winevt.h>

#include <functional>
#include <string_view>

namespace zeph {

using RenderCallback = std::function<void(PEVT_VARIANT& values)>;
using MessageCallback = std::function<void(std::wstring_view message)>;

// Renders the values at paths (in their order) and calls back once with the
// EVT_VARIANT array. context is created on first use and then reused; the
// caller closes it. The array is allocated per event and deliberately not
// freed: the callback may keep pointers into it.
[[nodiscard]] DWORD RenderEventValues(EVT_HANDLE& context, EVT_HANDLE event, const wchar_t* const* paths, DWORD count,
                                      RenderCallback callback);

// Formats the event's message with the publisher's metadata and calls back
// once with the text, up to its terminating zero. Returns the last error
// after the attempt.
[[nodiscard]] DWORD FormatEventMessage(EVT_HANDLE publisherMetadata, EVT_HANDLE event, MessageCallback callback);

}  // namespace zeph
