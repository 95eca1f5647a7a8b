// The floor of the event path: a subscriber of its own on the event log that
// reads each delivered event with the same calls a metric makes (render
// context, render, publisher metadata, format; context closed per event) and
// keeps nothing of it. It leaves open what the metrics deliberately leave open,
// the render buffer and the publisher metadata handle of every event, so that
// the two differ only in the metric's own work, in time and in memory.
//
// Threads: Read runs on the event log's delivery thread.
#pragma once

#include <windows.h>
#include <winevt.h>

#include <atomic>

namespace zeph::bench {

class BareSubscriber {
public:
    // paths/count: the values to render; publisher: the metadata to open.
    BareSubscriber(const wchar_t* const* paths, DWORD count, const wchar_t* publisher);
    ~BareSubscriber();
    BareSubscriber(const BareSubscriber&) = delete;
    BareSubscriber& operator=(const BareSubscriber&) = delete;

    // EvtSubscribe to future events; false when the event log refuses.
    bool Subscribe(const wchar_t* channel, const wchar_t* query);
    void Close();

    // Events whose message was formatted.
    LONG64 Messages() const { return messages_; }

private:
    static DWORD WINAPI OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event);
    void Read(EVT_HANDLE event);

    const wchar_t* const* paths_;
    DWORD count_;
    const wchar_t* publisher_;
    EVT_HANDLE subscription_ = nullptr;
    std::atomic<LONG64> messages_{0};
};

}  // namespace zeph::bench
