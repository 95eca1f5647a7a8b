#include "sim_recorder.h"

namespace simtest {

EVT_SIM_COUNTERS Counters() {
    EVT_SIM_COUNTERS counters{};
    EvtSimGetCounters(&counters);
    return counters;
}

Recorder::Recorder(Hook hook) : hook_(std::move(hook)) {
    LPCWSTR paths[] = {L"Event/System/EventID"};
    renderContext_.reset(EvtCreateRenderContext(1, paths, EvtRenderContextValues));
}

Recorder::~Recorder() { Close(); }

DWORD Recorder::Subscribe(const std::wstring& channel, const wchar_t* query) {
    subscription_ = EvtSubscribe(nullptr, nullptr, channel.c_str(), query, nullptr, this, &Recorder::OnEvent,
                                 EvtSubscribeToFutureEvents);
    return subscription_ ? ERROR_SUCCESS : GetLastError();
}

BOOL Recorder::Close() {
    if (!subscription_) return FALSE;
    EVT_HANDLE subscription = subscription_;
    subscription_ = nullptr;
    return EvtClose(subscription);
}

bool Recorder::WaitForCalls(size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::milliseconds(kWaitMs), [&] { return calls_.size() >= count; });
}

std::vector<Call> Recorder::Calls() {
    std::lock_guard lock(mutex_);
    return calls_;
}

std::vector<USHORT> Recorder::EventIds() {
    std::vector<USHORT> ids;
    for (const Call& call : Calls()) {
        if (call.eventId) ids.push_back(*call.eventId);
    }
    return ids;
}

DWORD WINAPI Recorder::OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event) {
    auto* self = static_cast<Recorder*>(context);
    Call call;
    call.action = action;
    call.threadId = GetCurrentThreadId();
    if (action == EvtSubscribeActionError) {
        call.errorCode = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(event));
    } else {
        EVT_VARIANT value{};
        DWORD used = 0, count = 0;
        if (EvtRender(self->renderContext_.get(), event, EvtRenderEventValues, sizeof value, &value, &used, &count) &&
            value.Type == EvtVarTypeUInt16) {
            call.eventId = value.UInt16Val;
        }
        wchar_t text[256];
        if (EvtFormatMessage(nullptr, event, 0, 0, nullptr, EvtFormatMessageEvent, 256, text, &used)) {
            call.message = text;
        }
    }
    {
        std::lock_guard lock(self->mutex_);
        self->calls_.push_back(std::move(call));
    }
    self->changed_.notify_all();
    if (self->hook_) self->hook_(action, event);
    return ERROR_SUCCESS;
}

void SimTest::SetUp() {
    ASSERT_TRUE(EvtSimIsSimulator());
    static int next = 0;
    channel_ = L"SimTest-" + std::to_wstring(++next);
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, EvtSimAddChannel(channel_.c_str()));
    EvtSimResetCounters();
}

void SimTest::TearDown() {
    EXPECT_TRUE(EvtSimWaitForDeliveries(kWaitMs));
    EXPECT_EQ(0, Counters().deliveriesAfterClose);
    EXPECT_EQ(0, EvtSimOpenHandles(EVT_SIM_KIND_EVENT));
    EXPECT_EQ(0, EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION));
}

DWORD SimTest::Write(const wchar_t* publisher, USHORT eventId, const wchar_t* message, DWORD flags,
                     ULONGLONG timeCreated) {
    EVT_SIM_EVENT event{channel_.c_str(), publisher, eventId, timeCreated, message, flags};
    return EvtSimWriteEvent(&event);
}

}  // namespace simtest
