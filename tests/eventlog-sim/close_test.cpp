// EvtClose: a subscription stops delivering once closed, waits for a running callback
// (unless closed from inside it), and every handle closes exactly once.
#include "sim_recorder.h"

#include <chrono>
#include <future>
#include <set>
#include <thread>

namespace simtest {
namespace {

class CloseTest : public SimTest {};

struct HandleCloser {
    void operator()(HANDLE h) const { CloseHandle(h); }
};
using UniqueHandle = std::unique_ptr<void, HandleCloser>;

UniqueHandle ManualEvent() { return UniqueHandle(CreateEventW(nullptr, TRUE, FALSE, nullptr)); }

TEST_F(CloseTest, WaitsForTheRunningCallbackOfAnotherThread) {
    UniqueHandle entered = ManualEvent(), release = ManualEvent();
    std::atomic<bool> callbackFinished{false};
    Recorder recorder([&](EVT_SUBSCRIBE_NOTIFY_ACTION, EVT_HANDLE) {
        SetEvent(entered.get());
        WaitForSingleObject(release.get(), kWaitMs);
        callbackFinished = true;
    });
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Close", 1));
    ASSERT_EQ(WAIT_OBJECT_0, WaitForSingleObject(entered.get(), kWaitMs));

    std::promise<BOOL> closed;
    std::future<BOOL> closeResult = closed.get_future();
    std::atomic<bool> finishedBeforeCloseReturned{false};
    std::thread closer([&] {
        const BOOL ok = recorder.Close();
        finishedBeforeCloseReturned = callbackFinished.load();
        closed.set_value(ok);
    });
    // While the callback is held, EvtClose must still be waiting.
    EXPECT_EQ(std::future_status::timeout, closeResult.wait_for(std::chrono::milliseconds(200)));
    SetEvent(release.get());
    if (closeResult.wait_for(std::chrono::milliseconds(kWaitMs)) != std::future_status::ready) {
        closer.detach();
        FAIL() << "EvtClose did not return after the callback did";
    }
    closer.join();
    EXPECT_TRUE(closeResult.get());
    EXPECT_TRUE(finishedBeforeCloseReturned);
}

TEST_F(CloseTest, CloseFromItsOwnCallbackDropsTheQueueWithoutDeadlock) {
    UniqueHandle go = ManualEvent();
    BOOL closeResult = FALSE;
    DWORD closeError = 0xdead;
    Recorder recorder([&](EVT_SUBSCRIBE_NOTIFY_ACTION, EVT_HANDLE) {
        WaitForSingleObject(go.get(), kWaitMs);
        closeResult = recorder.Close();
        closeError = GetLastError();
    });
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_));
    for (USHORT id = 1; id <= 6; ++id) ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Close", id));
    SetEvent(go.get());  // the first callback closes while the other five wait in the queue

    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));
    EXPECT_TRUE(closeResult);
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, closeError);
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Close", 7));
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));
    EXPECT_EQ(std::vector<USHORT>{1}, recorder.EventIds());
    EXPECT_EQ(1, Counters().deliveries);
}

TEST_F(CloseTest, NothingIsDeliveredAfterCloseReturns) {
    Recorder recorder;
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_));
    for (USHORT id = 0; id < 500; ++id) ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Close", id));
    ASSERT_TRUE(recorder.Close());  // most likely with deliveries still queued
    const size_t deliveredByClose = recorder.Calls().size();

    for (USHORT id = 500; id < 600; ++id) ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Close", id));
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));
    EXPECT_EQ(deliveredByClose, recorder.Calls().size());
    EXPECT_EQ(static_cast<LONG64>(deliveredByClose), Counters().deliveries);
    EXPECT_EQ(0, Counters().deliveriesAfterClose);
}

TEST_F(CloseTest, CountsUnknownAndDoubleClosesAndNeverReusesValues) {
    SetLastError(0);
    EXPECT_FALSE(EvtClose(nullptr));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, GetLastError());
    EXPECT_FALSE(EvtClose(reinterpret_cast<EVT_HANDLE>(0x1234)));
    EXPECT_EQ(2, Counters().unknownCloses);
    EXPECT_EQ(0, Counters().doubleCloses);

    const LONG64 openBefore = EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT);
    LPCWSTR path = L"Event/System/EventID";
    std::set<EVT_HANDLE> values;
    EVT_HANDLE last = nullptr;
    for (int i = 0; i < 50; ++i) {
        last = EvtCreateRenderContext(1, &path, EvtRenderContextValues);
        ASSERT_NE(nullptr, last);
        EXPECT_EQ(openBefore + 1, EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT));
        EXPECT_TRUE(values.insert(last).second) << "handle value handed out twice";
        EXPECT_TRUE(EvtClose(last));
    }
    SetLastError(0);
    EXPECT_FALSE(EvtClose(last));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, GetLastError());

    EVT_HANDLE subscription = EvtSubscribe(nullptr, nullptr, channel_.c_str(), nullptr, nullptr, nullptr,
                                           [](EVT_SUBSCRIBE_NOTIFY_ACTION, PVOID, EVT_HANDLE) -> DWORD { return 0; },
                                           EvtSubscribeToFutureEvents);
    ASSERT_NE(nullptr, subscription);
    EXPECT_TRUE(EvtClose(subscription));
    EXPECT_FALSE(EvtClose(subscription));

    const EVT_SIM_COUNTERS counters = Counters();
    EXPECT_EQ(2, counters.doubleCloses);
    EXPECT_EQ(2, counters.unknownCloses);
    EXPECT_EQ(50, counters.opened[EVT_SIM_KIND_RENDER_CONTEXT]);
    EXPECT_EQ(50, counters.closed[EVT_SIM_KIND_RENDER_CONTEXT]);
    EXPECT_EQ(openBefore, EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT));
}

TEST_F(CloseTest, ClosingTheCallbacksEventHandleIsRefused) {
    UniqueEvt context;
    {
        LPCWSTR path = L"Event/System/EventID";
        context.reset(EvtCreateRenderContext(1, &path, EvtRenderContextValues));
    }
    BOOL closeResult = TRUE;
    DWORD closeError = 0;
    BOOL renderedAfterwards = FALSE;
    Recorder recorder([&](EVT_SUBSCRIBE_NOTIFY_ACTION, EVT_HANDLE event) {
        closeResult = EvtClose(event);
        closeError = GetLastError();
        EVT_VARIANT value{};
        DWORD used = 0, count = 0;
        renderedAfterwards = EvtRender(context.get(), event, EvtRenderEventValues, sizeof value, &value, &used, &count);
    });
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Close", 1));
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));

    EXPECT_FALSE(closeResult);
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, closeError);
    EXPECT_TRUE(renderedAfterwards) << "a refused close must leave the handle usable";
    const EVT_SIM_COUNTERS counters = Counters();
    EXPECT_EQ(1, counters.doubleCloses);
    EXPECT_EQ(1, counters.opened[EVT_SIM_KIND_EVENT]);
    EXPECT_EQ(1, counters.closed[EVT_SIM_KIND_EVENT]);
}

}  // namespace
}  // namespace simtest
