#include "metric/event_log_reader.h"

#include "win/code_unit_search.h"

#include <cstdlib>
#include <memory>

namespace zeph {

DWORD RenderEventValues(EVT_HANDLE& context, EVT_HANDLE event, const wchar_t* const* paths, DWORD count,
                        RenderCallback callback)
{
    if (context == nullptr) {
        context = ::EvtCreateRenderContext(count, const_cast<LPCWSTR*>(paths), EvtRenderContextValues);
        const DWORD error = ::GetLastError();
        if (error != ERROR_SUCCESS) {
            return error;
        }
    }

    DWORD bufferUsed = 0;
    DWORD propertyCount = 0;
    ::EvtRender(context, event, EvtRenderEventValues, 0, nullptr, &bufferUsed, &propertyCount);
    DWORD error = ::GetLastError();
    PEVT_VARIANT values = nullptr;
    if (error == ERROR_INSUFFICIENT_BUFFER) {
        values = static_cast<PEVT_VARIANT>(std::malloc(bufferUsed));
        if (values == nullptr) {
            error = ERROR_OUTOFMEMORY;
        } else {
            ::EvtRender(context, event, EvtRenderEventValues, bufferUsed, values, &bufferUsed, &propertyCount);
            error = ::GetLastError();
        }
    }
    if (error == ERROR_SUCCESS) {
        callback(values);
    }
    return error;
}

DWORD FormatEventMessage(EVT_HANDLE publisherMetadata, EVT_HANDLE event, MessageCallback callback)
{
    DWORD bufferUsed = 0;
    if (!::EvtFormatMessage(publisherMetadata, event, 0, 0, nullptr, EvtFormatMessageEvent, 0, nullptr, &bufferUsed) &&
        ::GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        const DWORD bufferSize = bufferUsed;
        std::unique_ptr<wchar_t[]> buffer(new (std::nothrow) wchar_t[bufferSize]);
        if (buffer) {
            if (::EvtFormatMessage(publisherMetadata, event, 0, 0, nullptr, EvtFormatMessageEvent, bufferSize,
                                   buffer.get(), &bufferUsed)) {
                // Measured within the buffer, eight units at a time: the
                // runtime's wcslen goes one at a time, which showed in the
                // event path's crash figure.
                const wchar_t* const end = FindCodeUnit(buffer.get(), buffer.get() + bufferSize, L'\0');
                callback(std::wstring_view(buffer.get(), static_cast<size_t>(end - buffer.get())));
            }
        }
    }
    return ::GetLastError();
}

}  // namespace zeph
