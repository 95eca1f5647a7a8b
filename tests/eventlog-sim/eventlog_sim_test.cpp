// The simulated event log where the provider's own tests cannot show that it behaves like the
// real API: the error codes of its refusals, and its threading (deliveries on a thread of its
// own; EvtClose from inside a callback). Its handle counters back the leak checks of every
// other suite, so they are checked here too. Rendering, formatting and EvtClose waiting for a
// callback in flight are proven through the provider's own tests (tests/metric, the teardown race),
// the channel and query checks through zeph-host's (tests/host).
#include "metric/event_log_handle.h"
#include "simulated_event_log.h"

#include <winevt.h>

#include <gtest/gtest.h>

#include <functional>
#include <mutex>
#include <semaphore>
#include <thread>
#include <vector>

namespace simtest {
namespace {

using zeph::test::Counters;
using UniqueEvt = zeph::unique_evt_handle;
constexpr DWORD kWaitMs = 10000;  // reaching it means the behaviour under test is broken
constexpr auto kWait = std::chrono::milliseconds(kWaitMs);
constexpr DWORD kOk = ERROR_SUCCESS;

struct Call {
    EVT_SUBSCRIBE_NOTIFY_ACTION action;
    DWORD errorCode = 0, threadId = 0;
};

// A subscription that records each callback, then runs a hook while the event handle is valid.
class Recorder {
public:
    explicit Recorder(std::function<void(EVT_HANDLE)> hook = {}) : hook_(std::move(hook)) {}
    ~Recorder() { Close(); }

    DWORD Subscribe(const std::wstring& channel, const wchar_t* query = nullptr)
    {
        subscription_ =
            EvtSubscribe(nullptr, nullptr, channel.c_str(), query, nullptr, this, &OnEvent, EvtSubscribeToFutureEvents);
        return subscription_ ? kOk : GetLastError();
    }
    BOOL Close() { return subscription_ ? EvtClose(std::exchange(subscription_, nullptr)) : FALSE; }
    std::vector<Call> Calls()
    {
        std::lock_guard lock(mutex_);
        return calls_;
    }

private:
    static DWORD WINAPI OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event)
    {
        auto* self = static_cast<Recorder*>(context);
        const auto error = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(event));
        const Call call{action, action == EvtSubscribeActionError ? error : 0, GetCurrentThreadId()};
        {
            std::lock_guard lock(self->mutex_);
            self->calls_.push_back(call);
        }
        if (self->hook_) {
            self->hook_(event);
        }
        return kOk;
    }

    std::function<void(EVT_HANDLE)> hook_;
    EVT_HANDLE subscription_ = nullptr;
    std::mutex mutex_;
    std::vector<Call> calls_;
};

// A channel of its own, counters reset, and nothing leaked or delivered late at the end.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(EvtSimIsSimulator());
        static int next = 0;
        channel_ = L"SimTest-" + std::to_wstring(++next);
        ASSERT_EQ(kOk, EvtSimAddChannel(channel_.c_str()));
        EvtSimResetCounters();
    }
    void TearDown() override
    {
        Settle();
        EXPECT_EQ(0, Counters().deliveriesAfterClose);
        EXPECT_EQ(0, EvtSimOpenHandles(EVT_SIM_KIND_EVENT));
        EXPECT_EQ(0, EvtSimOpenHandles(EVT_SIM_KIND_SUBSCRIPTION));
    }
    DWORD Write(const wchar_t* publisher, USHORT id, const wchar_t* message = L"message", DWORD flags = 0)
    {
        const EVT_SIM_EVENT event{channel_.c_str(), publisher, id, 0x01d9000000000000ull, message, flags};
        return EvtSimWriteEvent(&event);
    }
    static void Settle() { ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs)); }

    std::wstring channel_;
};

DWORD WINAPI Ignore(EVT_SUBSCRIBE_NOTIFY_ACTION, PVOID, EVT_HANDLE)
{
    return kOk;
}

DWORD SubscribeError(const wchar_t* channel, const wchar_t* query, EVT_SUBSCRIBE_CALLBACK callback = Ignore,
                     DWORD flags = EvtSubscribeToFutureEvents, EVT_HANDLE session = nullptr)
{
    EVT_HANDLE h = EvtSubscribe(session, nullptr, channel, query, nullptr, nullptr, callback, flags);
    return h != nullptr && EvtClose(h) ? kOk : GetLastError();
}

TEST_F(SimTest, RefusalsCarryTheApisErrorCodes)
{
    const wchar_t* me = channel_.c_str();
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, SubscribeError(L"No Such Channel", nullptr));
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, SubscribeError(nullptr, L"*"));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, SubscribeError(me, nullptr, nullptr));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, SubscribeError(me, nullptr, Ignore, EvtSubscribeStartAtOldestRecord));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED},
              SubscribeError(me, nullptr, Ignore, EvtSubscribeToFutureEvents, reinterpret_cast<EVT_HANDLE>(0x1234)));
    for (const wchar_t* query : {L"", L"*[System[EventID=]]", L"*[System[Level=2]]",
                                 L"*[System[Provider[@Name='Unterminated]]]", L"*[System[EventID=1]] trailing"}) {
        EXPECT_EQ(DWORD{ERROR_EVT_INVALID_QUERY}, SubscribeError(me, query)) << testing::PrintToString(query);
    }
    EXPECT_EQ(0, Counters().opened[EVT_SIM_KIND_SUBSCRIPTION]);
    EXPECT_EQ(kOk, SubscribeError(L"aPPLICATION", nullptr));  // channel names ignore case

    SetLastError(0);
    EXPECT_FALSE(EvtOpenPublisherMetadata(nullptr, (L"Nobody " + channel_).c_str(), nullptr, 0, 0));
    EXPECT_EQ(DWORD{ERROR_EVT_PUBLISHER_METADATA_NOT_FOUND}, GetLastError());
    LPCWSTR path = L"Event/System/EventID";
    EXPECT_FALSE(EvtCreateRenderContext(1, &path, EvtRenderContextSystem));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, GetLastError());

    // The event handle belongs to the callback and is gone once it returned.
    EVT_HANDLE stale = nullptr;
    Recorder recorder([&](EVT_HANDLE event) { stale = event; });
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    ASSERT_EQ(kOk, Write(L"Sim Refusals", 2));
    Settle();
    UniqueEvt context(EvtCreateRenderContext(1, &path, EvtRenderContextValues));
    DWORD used = 0, count = 0;
    EVT_VARIANT value{};
    EXPECT_FALSE(EvtRender(context.get(), stale, EvtRenderEventValues, sizeof value, &value, &used, &count));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, GetLastError());
}

TEST_F(SimTest, DeliversFutureEventsOnOneThreadOfItsOwnAndErrorsWithTheirCode)
{
    ASSERT_EQ(kOk, Write(L"Past", 1));
    Recorder recorder;
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    for (USHORT id = 2; id <= 20; ++id) {
        ASSERT_EQ(kOk, Write(L"Order", id));
    }
    ASSERT_EQ(kOk, EvtSimDeliverError(channel_.c_str(), ERROR_EVT_QUERY_RESULT_STALE));
    Settle();
    const std::vector<Call> calls = recorder.Calls();
    ASSERT_EQ(calls.size(), 20u);
    for (const Call& call : calls) {
        EXPECT_NE(GetCurrentThreadId(), call.threadId);
        EXPECT_EQ(calls.front().threadId, call.threadId);
    }
    EXPECT_EQ(EvtSubscribeActionError, calls.back().action);
    EXPECT_EQ(DWORD{ERROR_EVT_QUERY_RESULT_STALE}, calls.back().errorCode);
    EXPECT_EQ(19, Counters().opened[EVT_SIM_KIND_EVENT]);
}

TEST_F(SimTest, CloseFromItsOwnCallbackDropsTheQueueWithoutDeadlockAndNothingComesAfterClose)
{
    std::binary_semaphore go{0};
    BOOL closeResult = FALSE;
    Recorder recorder([&](EVT_HANDLE) {
        go.try_acquire_for(kWait);
        closeResult = recorder.Close();
    });
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    for (USHORT id = 1; id <= 6; ++id) {
        ASSERT_EQ(kOk, Write(L"Close", id));
    }
    go.release();  // the first callback closes while the other five wait in the queue
    Settle();
    EXPECT_TRUE(closeResult);
    EXPECT_EQ(1u, recorder.Calls().size());

    Recorder other;
    ASSERT_EQ(kOk, other.Subscribe(channel_));
    for (USHORT id = 0; id < 500; ++id) {
        ASSERT_EQ(kOk, Write(L"Close", id));
    }
    ASSERT_TRUE(other.Close());  // most likely with deliveries still queued
    const size_t deliveredByClose = other.Calls().size();
    ASSERT_EQ(kOk, Write(L"Close", 500));
    Settle();
    EXPECT_EQ(deliveredByClose, other.Calls().size());
    EXPECT_EQ(static_cast<LONG64>(deliveredByClose) + 1, Counters().deliveries);
}

// The counters behind every other suite's leak checks: closing a handle twice, one never
// given, or the callback's own event handle is refused and counted.
TEST_F(SimTest, CountsDoubleAndUnknownClosesAndTheCallbacksOwnEventHandle)
{
    EXPECT_FALSE(EvtClose(reinterpret_cast<EVT_HANDLE>(0x1234)));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, GetLastError());
    LPCWSTR path = L"Event/System/EventID";
    EVT_HANDLE context = EvtCreateRenderContext(1, &path, EvtRenderContextValues);
    EXPECT_TRUE(EvtClose(context));
    EXPECT_FALSE(EvtClose(context));
    BOOL closeResult = TRUE;
    Recorder recorder([&](EVT_HANDLE event) { closeResult = EvtClose(event); });
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    ASSERT_EQ(kOk, Write(L"Close", 1));
    Settle();
    EXPECT_FALSE(closeResult);
    const EVT_SIM_COUNTERS counters = Counters();
    EXPECT_EQ(2, counters.doubleCloses);
    EXPECT_EQ(1, counters.unknownCloses);
    EXPECT_EQ(1, counters.closed[EVT_SIM_KIND_EVENT]);
}

}  // namespace
}  // namespace simtest
