#include "bare_subscriber.h"

#include <cstdlib>
#include <memory>
#include <new>

namespace zeph::bench {

BareSubscriber::BareSubscriber(const wchar_t* const* paths, DWORD count, const wchar_t* publisher)
    : paths_(paths), count_(count), publisher_(publisher)
{
}

BareSubscriber::~BareSubscriber()
{
    Close();
}

bool BareSubscriber::Subscribe(const wchar_t* channel, const wchar_t* query)
{
    Close();
    subscription_ = ::EvtSubscribe(nullptr, nullptr, channel, query, nullptr, this, &BareSubscriber::OnEvent,
                                   EvtSubscribeToFutureEvents);
    return subscription_ != nullptr;
}

void BareSubscriber::Close()
{
    if (subscription_ != nullptr) {
        ::EvtClose(subscription_);
        subscription_ = nullptr;
    }
}

DWORD WINAPI BareSubscriber::OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event)
{
    if (action == EvtSubscribeActionDeliver) {
        static_cast<BareSubscriber*>(context)->Read(event);
    }
    return 0;
}

void BareSubscriber::Read(EVT_HANDLE event)
{
    EVT_HANDLE context = ::EvtCreateRenderContext(count_, const_cast<LPCWSTR*>(paths_), EvtRenderContextValues);
    if (context != nullptr) {
        DWORD used = 0;
        DWORD properties = 0;
        if (!::EvtRender(context, event, EvtRenderEventValues, 0, nullptr, &used, &properties) &&
            ::GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
            // Left allocated, as the metrics leave theirs.
            void* values = std::malloc(used);
            if (values != nullptr) {
                ::EvtRender(context, event, EvtRenderEventValues, used, values, &used, &properties);
            }
        }
        ::EvtClose(context);
    }

    // Left open, as the metrics leave theirs.
    const EVT_HANDLE publisher = ::EvtOpenPublisherMetadata(nullptr, publisher_, nullptr, 0, 0);
    DWORD used = 0;
    if (!::EvtFormatMessage(publisher, event, 0, 0, nullptr, EvtFormatMessageEvent, 0, nullptr, &used) &&
        ::GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        std::unique_ptr<wchar_t[]> buffer(new (std::nothrow) wchar_t[used]);
        if (buffer &&
            ::EvtFormatMessage(publisher, event, 0, 0, nullptr, EvtFormatMessageEvent, used, buffer.get(), &used)) {
            ++messages_;
        }
    }
}

}  // namespace zeph::bench
