#include "message_recorder.h"

#include <gtest/gtest.h>

#include <cwchar>

namespace zeph::fuzz {

MessageRecorder::MessageRecorder(const wchar_t* channel, const wchar_t* publisher) : publisher_(publisher)
{
    subscription_.reset(::EvtSubscribe(nullptr, nullptr, channel, L"*", nullptr, this, &MessageRecorder::OnEvent,
                                       EvtSubscribeToFutureEvents));
    EXPECT_TRUE(subscription_) << "subscribing to the channel: " << ::GetLastError();
}

DWORD WINAPI MessageRecorder::OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event)
{
    if (action != EvtSubscribeActionDeliver) {
        return 0;
    }
    auto& recorder = *static_cast<MessageRecorder*>(context);
    std::optional<std::wstring> message;
    const unique_evt_handle metadata(::EvtOpenPublisherMetadata(nullptr, recorder.publisher_.c_str(), nullptr, 0, 0));
    DWORD used = 0;
    if (!::EvtFormatMessage(metadata.get(), event, 0, 0, nullptr, EvtFormatMessageEvent, 0, nullptr, &used) &&
        ::GetLastError() == ERROR_INSUFFICIENT_BUFFER) {
        std::wstring text(used, L'\0');
        if (::EvtFormatMessage(metadata.get(), event, 0, 0, nullptr, EvtFormatMessageEvent, used, text.data(), &used)) {
            text.resize(std::wcslen(text.c_str()));
            message = std::move(text);
        }
    }
    const std::lock_guard lock(recorder.mutex_);
    recorder.messages_.push_back(std::move(message));
    return 0;
}

std::vector<std::optional<std::wstring>> MessageRecorder::Messages() const
{
    const std::lock_guard lock(mutex_);
    return messages_;
}

}  // namespace zeph::fuzz
