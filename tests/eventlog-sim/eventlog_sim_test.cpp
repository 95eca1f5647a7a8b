// The simulated event log through the ordinary Evt* imports: refusals and their
// codes, query filtering, delivery order and thread, EvtClose, handle accounting.
#include "metric/event_log_handle.h"
#include "simulated_event_log.h"

#include <winevt.h>

#include <gtest/gtest.h>

#include <cwctype>
#include <functional>
#include <future>
#include <mutex>
#include <optional>
#include <semaphore>
#include <set>
#include <thread>
#include <vector>

namespace simtest {
namespace {

using zeph::test::Counters;
using UniqueEvt = zeph::unique_evt_handle;
constexpr DWORD kWaitMs = 10000;  // reaching it means the behaviour under test is broken
constexpr auto kWait = std::chrono::milliseconds(kWaitMs);
constexpr DWORD kOk = ERROR_SUCCESS;

UniqueEvt RenderContext(std::vector<LPCWSTR> paths, DWORD flags = EvtRenderContextValues)
{
    return UniqueEvt(EvtCreateRenderContext(static_cast<DWORD>(paths.size()), paths.data(), flags));
}

struct Call {
    EVT_SUBSCRIBE_NOTIFY_ACTION action;
    std::optional<USHORT> eventId;  // rendered from the event handle
    std::wstring message;           // formatted from it
    DWORD errorCode = 0, threadId = 0;
};

// A subscription that records each callback, then runs a hook while the event handle is valid.
class Recorder {
public:
    using Hook = std::function<void(EVT_HANDLE)>;
    explicit Recorder(Hook hook = {}) : hook_(std::move(hook)), ids_(RenderContext({L"Event/System/EventID"})) {}
    ~Recorder() { Close(); }

    DWORD Subscribe(const std::wstring& channel, const wchar_t* query = nullptr)
    {
        subscription_ = EvtSubscribe(nullptr, nullptr, channel.c_str(), query, nullptr, this, &OnEvent,
                                     EvtSubscribeToFutureEvents);
        return subscription_ ? kOk : GetLastError();
    }
    BOOL Close() { return subscription_ ? EvtClose(std::exchange(subscription_, nullptr)) : FALSE; }
    std::vector<Call> Calls()
    {
        std::lock_guard lock(mutex_);
        return calls_;
    }
    std::vector<USHORT> EventIds()
    {
        std::vector<USHORT> ids;
        for (const Call& call : Calls()) {
            if (call.eventId) ids.push_back(*call.eventId);
        }
        return ids;
    }

private:
    static DWORD WINAPI OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event)
    {
        auto* self = static_cast<Recorder*>(context);
        Call call{action, {}, {}, 0, GetCurrentThreadId()};
        if (action == EvtSubscribeActionError) {
            call.errorCode = static_cast<DWORD>(reinterpret_cast<ULONG_PTR>(event));
        } else {
            EVT_VARIANT value{};
            DWORD used = 0, count = 0;
            if (EvtRender(self->ids_.get(), event, EvtRenderEventValues, sizeof value, &value, &used, &count) &&
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
        if (self->hook_) self->hook_(event);
        return kOk;
    }

    Hook hook_;
    UniqueEvt ids_;
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
    DWORD Write(const wchar_t* publisher, USHORT id, const wchar_t* message = L"message", DWORD flags = 0,
                ULONGLONG time = 0x01d9000000000000ull)
    {
        const EVT_SIM_EVENT event{channel_.c_str(), publisher, id, time, message, flags};
        return EvtSimWriteEvent(&event);
    }
    static void Settle() { ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs)); }

    std::wstring channel_;
};

DWORD WINAPI Ignore(EVT_SUBSCRIBE_NOTIFY_ACTION, PVOID, EVT_HANDLE) { return kOk; }

DWORD SubscribeError(const wchar_t* channel, const wchar_t* query, EVT_SUBSCRIBE_CALLBACK callback = Ignore,
                     DWORD flags = EvtSubscribeToFutureEvents, EVT_HANDLE session = nullptr)
{
    EVT_HANDLE h = EvtSubscribe(session, nullptr, channel, query, nullptr, nullptr, callback, flags);
    return h != nullptr && EvtClose(h) ? kOk : GetLastError();
}

TEST_F(SimTest, SubscribeRefusals)
{
    const wchar_t* me = channel_.c_str();
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, SubscribeError(L"No Such Channel", nullptr));
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, SubscribeError(L"", nullptr));
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, SubscribeError(nullptr, L"*"));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, SubscribeError(me, nullptr, nullptr));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, SubscribeError(me, nullptr, Ignore, EvtSubscribeStartAtOldestRecord));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED},
              SubscribeError(me, nullptr, Ignore, EvtSubscribeToFutureEvents, reinterpret_cast<EVT_HANDLE>(0x1234)));
    for (const wchar_t* query : {L"", L"**", L"<QueryList><Query Id='0'/></QueryList>", L"*[System[EventID=]]",
                                 L"*[System[EventID=1000]", L"*[System[EventID=99999999999]]", L"*[System[Level=2]]",
                                 L"*[System[Provider[@Name='Unterminated]]]", L"*[System[Provider[@Name='Mixed\"]]]",
                                 L"*[System[EventID=1 and]]", L"*[System[(EventID=1]]",
                                 L"*[System[EventID=1 order EventID=2]]", L"*[System[EventID=1]] trailing"}) {
        EXPECT_EQ(DWORD{ERROR_EVT_INVALID_QUERY}, SubscribeError(me, query)) << testing::PrintToString(query);
    }
    EXPECT_EQ(0, Counters().opened[EVT_SIM_KIND_SUBSCRIPTION]);

    // Channel names are case-insensitive, for subscribing and for adding.
    EXPECT_EQ(kOk, SubscribeError(L"aPPLICATION", nullptr));
    EXPECT_EQ(DWORD{ERROR_ALREADY_EXISTS}, EvtSimAddChannel(L"SYSTEM"));
    EVT_SIM_EVENT nowhere{L"No Such Channel", L"P", 1, 0, L"", 0};
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, EvtSimWriteEvent(&nowhere));
}

TEST_F(SimTest, QueriesSelectByProviderAndEventId)
{
    const std::vector<std::pair<const wchar_t*, std::vector<std::wstring>>> cases = {
        {nullptr, {L"e0", L"e1", L"e2", L"e3", L"e4"}},
        {L"*", {L"e0", L"e1", L"e2", L"e3", L"e4"}},
        {L"*[System[Provider[@Name='Application Error']]]", {L"e0", L"e1", L"e4"}},
        {L"*[System[(EventID=1000)]]", {L"e0", L"e2"}},
        {L"*[System[EventID=2]]", {L"e3", L"e4"}},
        {L"*[System[Provider[@Name='Application Error'] and (EventID=1000)]]", {L"e0"}},
        {L"*[System[(EventID=1000) and Provider[@Name=\"APPLICATION ERROR\"]]]", {L"e0"}},
        {L" * [ System [ ( EventID = 1000 or EventID=1001 ) ] ] ", {L"e0", L"e1", L"e2"}},
        {L"*[System[Provider[@Name='Other'] and (EventID=1 or EventID=2)]]", {L"e3"}},
        {L"*[System[Provider[@Name='Nobody']]]", {}},
    };
    std::vector<std::unique_ptr<Recorder>> recorders;
    for (const auto& c : cases) {
        recorders.push_back(std::make_unique<Recorder>());
        ASSERT_EQ(kOk, recorders.back()->Subscribe(channel_, c.first));
    }
    ASSERT_EQ(kOk, Write(L"Application Error", 1000, L"e0"));
    ASSERT_EQ(kOk, Write(L"application error", 1001, L"e1"));
    ASSERT_EQ(kOk, Write(L"Other", 1000, L"e2"));
    ASSERT_EQ(kOk, Write(L"Other", 2, L"e3"));
    ASSERT_EQ(kOk, Write(L"Application Error", 2, L"e4"));
    Settle();
    for (size_t i = 0; i < cases.size(); ++i) {
        std::vector<std::wstring> seen;
        for (const Call& call : recorders[i]->Calls()) seen.push_back(call.message);
        EXPECT_EQ(cases[i].second, seen) << "query #" << i;
    }
}

TEST_F(SimTest, DeliversFutureEventsInWriteOrderOnItsOwnThread)
{
    ASSERT_EQ(kOk, Write(L"Past", 1));
    Recorder recorder;
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    std::vector<USHORT> written;
    for (USHORT id = 2; id <= 200; ++id) {
        ASSERT_EQ(kOk, Write(L"Order", id));
        written.push_back(id);
    }
    Settle();
    EXPECT_EQ(written, recorder.EventIds());
    const std::vector<Call> calls = recorder.Calls();
    for (const Call& call : calls) {
        EXPECT_EQ(EvtSubscribeActionDeliver, call.action);
        EXPECT_NE(GetCurrentThreadId(), call.threadId);
        EXPECT_EQ(calls.front().threadId, call.threadId);
    }

    // A subscriber joining later gets none of the backlog.
    Recorder late;
    ASSERT_EQ(kOk, late.Subscribe(channel_));
    ASSERT_EQ(kOk, Write(L"Future", 201));
    Settle();
    EXPECT_EQ(std::vector<USHORT>{201}, late.EventIds());
}

TEST_F(SimTest, ConcurrentWritersKeepEachWritersOrder)
{
    constexpr int kWriters = 4, kPerWriter = 250;
    Recorder first, second;
    ASSERT_EQ(kOk, first.Subscribe(channel_));
    ASSERT_EQ(kOk, second.Subscribe(channel_));
    std::vector<std::thread> writers;
    std::atomic<int> failures{0};
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < kPerWriter; ++i) failures += Write(L"Writer", static_cast<USHORT>(w * 1000 + i)) != kOk;
        });
    }
    for (auto& t : writers) t.join();
    ASSERT_EQ(0, failures.load());
    Settle();
    for (Recorder* recorder : {&first, &second}) {
        const std::vector<USHORT> ids = recorder->EventIds();
        ASSERT_EQ(size_t{kWriters * kPerWriter}, ids.size());
        int next[kWriters] = {};
        for (USHORT id : ids) EXPECT_EQ(next[id / 1000]++, id % 1000) << "writer " << id / 1000;
    }
    const EVT_SIM_COUNTERS counters = Counters();
    EXPECT_EQ(kWriters * kPerWriter, counters.eventsWritten);
    EXPECT_EQ(2 * kWriters * kPerWriter, counters.deliveries);
}

TEST_F(SimTest, DeliversErrorsWithTheCodeAsEventArgument)
{
    Recorder recorder;
    ASSERT_EQ(kOk, recorder.Subscribe(channel_, L"*[System[EventID=1]]"));
    ASSERT_EQ(kOk, EvtSimDeliverError(channel_.c_str(), ERROR_EVT_QUERY_RESULT_STALE));
    ASSERT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, EvtSimDeliverError(L"No Such Channel", 5));
    Settle();
    const Call call = recorder.Calls().at(0);
    EXPECT_EQ(EvtSubscribeActionError, call.action);
    EXPECT_EQ(DWORD{ERROR_EVT_QUERY_RESULT_STALE}, call.errorCode);
    EXPECT_EQ(1, Counters().errorDeliveries);
    EXPECT_EQ(0, Counters().opened[EVT_SIM_KIND_EVENT]);
}

// What one EvtRender or EvtFormatMessage call answered.
struct Answer {
    BOOL ok = FALSE;
    DWORD error = 0, used = 0, count = 0;
    std::wstring text;
};

Answer Render(EVT_HANDLE context, EVT_HANDLE event, DWORD size, void* buffer, DWORD flags = EvtRenderEventValues)
{
    Answer a;
    SetLastError(0xdead);
    a.ok = EvtRender(context, event, flags, size, buffer, &a.used, &a.count);
    a.error = GetLastError();
    return a;
}

Answer Format(EVT_HANDLE metadata, EVT_HANDLE event, DWORD size, DWORD flags = EvtFormatMessageEvent)
{
    Answer a;
    std::vector<wchar_t> buffer(size + 1, L'#');
    SetLastError(0xdead);
    a.ok = EvtFormatMessage(metadata, event, 0, 0, nullptr, flags, size, size ? buffer.data() : nullptr, &a.used);
    a.error = GetLastError();
    if (a.ok) a.text = buffer.data();
    return a;
}

void ExpectTooSmall(const Answer& a, DWORD needed)
{
    EXPECT_FALSE(a.ok);
    EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, a.error);
    EXPECT_EQ(needed, a.used);
}

TEST_F(SimTest, RenderAndFormatTakeTwoCalls)
{
    const std::wstring message = L"Faulting application name: demo.exe";
    const DWORD needed = static_cast<DWORD>(message.size() + 1);
    ASSERT_EQ(kOk, Write(L"Zeph Format", 1, L"before"));  // makes the publisher known
    SetLastError(0xdead);
    UniqueEvt metadata(EvtOpenPublisherMetadata(nullptr, L"zeph FORMAT", nullptr, 0, 0));
    ASSERT_TRUE(metadata);
    EXPECT_EQ(kOk, GetLastError());
    UniqueEvt context =
        RenderContext({L"Event/System/TimeCreated/@SystemTime", L"Event/System/Level", L"Event/System/EventID"});
    ASSERT_TRUE(context);

    Answer query, tooSmall, full, missing, textQuery, shortByOne, exact, own, empty;
    std::vector<EVT_VARIANT> values(3), nulls(3);
    Recorder recorder([&](EVT_HANDLE event) {
        if (recorder.Calls().size() == 1) {
            query = Render(context.get(), event, 0, nullptr);
            tooSmall = Render(context.get(), event, query.used - 1, values.data());
            full = Render(context.get(), event, query.used, values.data());
            textQuery = Format(metadata.get(), event, 0);
            shortByOne = Format(metadata.get(), event, textQuery.used - 1);
            exact = Format(metadata.get(), event, textQuery.used);
            own = Format(nullptr, event, textQuery.used);
        } else {
            missing = Render(context.get(), event, 3 * sizeof(EVT_VARIANT), nulls.data());
            empty = Format(metadata.get(), event, 1);
        }
    });
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    ASSERT_EQ(kOk, Write(L"Zeph Format", 1000, message.c_str(), 0, 0x01d9a0b0c0d0e0f0ull));
    ASSERT_EQ(kOk, Write(L"Zeph Format", 1001, L"", EVT_SIM_NO_TIME | EVT_SIM_NO_EVENT_ID));
    Settle();
    ASSERT_EQ(2u, recorder.Calls().size());

    ExpectTooSmall(query, 3 * sizeof(EVT_VARIANT));
    EXPECT_EQ(3u, query.count);
    ExpectTooSmall(tooSmall, 3 * sizeof(EVT_VARIANT));
    ASSERT_TRUE(full.ok);
    EXPECT_EQ(kOk, full.error);
    EXPECT_EQ(3u, full.count);
    EXPECT_EQ(DWORD{EvtVarTypeFileTime}, values[0].Type);
    EXPECT_EQ(0x01d9a0b0c0d0e0f0ull, values[0].FileTimeVal);
    EXPECT_EQ(DWORD{EvtVarTypeNull}, values[1].Type);
    EXPECT_EQ(DWORD{EvtVarTypeUInt16}, values[2].Type);
    EXPECT_EQ(1000, values[2].UInt16Val);
    ASSERT_TRUE(missing.ok);
    for (const EVT_VARIANT& v : nulls) EXPECT_EQ(DWORD{EvtVarTypeNull}, v.Type);

    ExpectTooSmall(textQuery, needed);
    ExpectTooSmall(shortByOne, needed);
    for (const Answer* a : {&exact, &own}) {
        EXPECT_TRUE(a->ok);
        EXPECT_EQ(kOk, a->error);
        EXPECT_EQ(needed, a->used);
        EXPECT_EQ(message, a->text);
    }
    EXPECT_TRUE(empty.ok);
    EXPECT_EQ(1u, empty.used);
    EXPECT_EQ(L"", empty.text);
}

TEST_F(SimTest, RenderFormatAndMetadataRefusals)
{
    // Publishers stay known for the life of the process, so the name is new to each test.
    const std::wstring publisher = L"Somebody Else " + channel_;
    std::wstring shouted = publisher;
    for (wchar_t& c : shouted) c = static_cast<wchar_t>(std::towupper(c));
    SetLastError(0);
    EXPECT_FALSE(UniqueEvt(EvtOpenPublisherMetadata(nullptr, publisher.c_str(), nullptr, 0, 0)));
    EXPECT_EQ(DWORD{ERROR_EVT_PUBLISHER_METADATA_NOT_FOUND}, GetLastError());
    ASSERT_EQ(kOk, Write(publisher.c_str(), 1));  // no subscriber needed
    UniqueEvt otherMetadata(EvtOpenPublisherMetadata(nullptr, shouted.c_str(), nullptr, 0, 0));
    ASSERT_TRUE(otherMetadata);
    EXPECT_EQ(1, EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA));
    UniqueEvt context = RenderContext({L"Event/System/EventID"});
    ASSERT_TRUE(context);

    EVT_HANDLE stale = nullptr;
    EVT_VARIANT value{};
    std::vector<std::pair<Answer, DWORD>> answers;  // with the error expected
    Recorder recorder([&](EVT_HANDLE event) {
        stale = event;
        if (recorder.Calls().size() == 1) {
            answers.push_back({Format(nullptr, event, 256), ERROR_EVT_MESSAGE_NOT_FOUND});
            return;
        }
        answers.push_back({Format(otherMetadata.get(), event, 256), ERROR_EVT_MESSAGE_NOT_FOUND});
        answers.push_back({Render(nullptr, event, sizeof value, &value), ERROR_INVALID_HANDLE});
        answers.push_back({Render(event, event, sizeof value, &value), ERROR_INVALID_HANDLE});
        answers.push_back({Format(event, event, 256), ERROR_INVALID_HANDLE});
        answers.push_back({Render(nullptr, event, sizeof value, &value, EvtRenderEventXml), ERROR_NOT_SUPPORTED});
        answers.push_back({Format(nullptr, event, 256, EvtFormatMessageXml), ERROR_NOT_SUPPORTED});
    });
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    ASSERT_EQ(kOk, Write(L"Mine", 1, L"text", EVT_SIM_UNFORMATTABLE));
    ASSERT_EQ(kOk, Write(L"Mine", 2, L"text"));
    Settle();
    // The event handle belonged to the callback and is gone once it returned.
    answers.push_back({Render(context.get(), stale, sizeof value, &value), ERROR_INVALID_HANDLE});
    ASSERT_EQ(8u, answers.size());
    for (size_t i = 0; i < answers.size(); ++i) {
        EXPECT_FALSE(answers[i].first.ok) << "#" << i;
        EXPECT_EQ(answers[i].second, answers[i].first.error) << "#" << i;
    }
    EXPECT_FALSE(RenderContext({L"Event/System/EventID"}, EvtRenderContextSystem));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED}, GetLastError());
    otherMetadata.reset();
    EXPECT_EQ(0, EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA));
}

TEST_F(SimTest, CloseWaitsForTheRunningCallbackOfAnotherThread)
{
    std::binary_semaphore entered{0}, release{0};
    std::atomic<bool> callbackFinished{false};
    Recorder recorder([&](EVT_HANDLE) {
        entered.release();
        release.try_acquire_for(kWait);
        callbackFinished = true;
    });
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    ASSERT_EQ(kOk, Write(L"Close", 1));
    ASSERT_TRUE(entered.try_acquire_for(kWait));

    std::atomic<bool> finishedFirst{false};
    std::promise<BOOL> closing;
    std::future<BOOL> closed = closing.get_future();
    std::thread closer([&] {
        const BOOL ok = recorder.Close();
        finishedFirst = callbackFinished.load();
        closing.set_value(ok);
    });
    // Give a close that does not wait the chance to return while the callback is held.
    EXPECT_EQ(std::future_status::timeout, closed.wait_for(std::chrono::milliseconds(200)));
    release.release();
    if (closed.wait_for(kWait) != std::future_status::ready) {
        closer.detach();
        FAIL() << "EvtClose did not return after the callback did";
    }
    closer.join();
    EXPECT_TRUE(closed.get());
    EXPECT_TRUE(finishedFirst);
}

TEST_F(SimTest, CloseFromItsOwnCallbackDropsTheQueueWithoutDeadlock)
{
    std::binary_semaphore go{0};
    BOOL closeResult = FALSE;
    DWORD closeError = 0xdead;
    Recorder recorder([&](EVT_HANDLE) {
        go.try_acquire_for(kWait);
        closeResult = recorder.Close();
        closeError = GetLastError();
    });
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    for (USHORT id = 1; id <= 6; ++id) ASSERT_EQ(kOk, Write(L"Close", id));
    go.release();  // the first callback closes while the other five wait in the queue
    Settle();
    EXPECT_TRUE(closeResult);
    EXPECT_EQ(kOk, closeError);
    ASSERT_EQ(kOk, Write(L"Close", 7));
    Settle();
    EXPECT_EQ(std::vector<USHORT>{1}, recorder.EventIds());
    EXPECT_EQ(1, Counters().deliveries);
}

TEST_F(SimTest, NothingIsDeliveredAfterCloseReturns)
{
    Recorder recorder;
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    for (USHORT id = 0; id < 500; ++id) ASSERT_EQ(kOk, Write(L"Close", id));
    ASSERT_TRUE(recorder.Close());  // most likely with deliveries still queued
    const size_t deliveredByClose = recorder.Calls().size();
    for (USHORT id = 500; id < 600; ++id) ASSERT_EQ(kOk, Write(L"Close", id));
    Settle();
    EXPECT_EQ(deliveredByClose, recorder.Calls().size());
    EXPECT_EQ(static_cast<LONG64>(deliveredByClose), Counters().deliveries);
}

TEST_F(SimTest, HandleAccounting)
{
    SetLastError(0);
    EXPECT_FALSE(EvtClose(nullptr));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, GetLastError());
    EXPECT_FALSE(EvtClose(reinterpret_cast<EVT_HANDLE>(0x1234)));

    const LONG64 openBefore = EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT);
    std::set<EVT_HANDLE> values;
    EVT_HANDLE last = nullptr;
    for (int i = 0; i < 50; ++i) {
        last = RenderContext({L"Event/System/EventID"}).release();
        ASSERT_NE(nullptr, last);
        EXPECT_EQ(openBefore + 1, EvtSimOpenHandles(EVT_SIM_KIND_RENDER_CONTEXT));
        EXPECT_TRUE(values.insert(last).second) << "handle value handed out twice";
        EXPECT_TRUE(EvtClose(last));
    }
    SetLastError(0);
    EXPECT_FALSE(EvtClose(last));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, GetLastError());

    EVT_HANDLE subscription = EvtSubscribe(nullptr, nullptr, channel_.c_str(), nullptr, nullptr, nullptr, Ignore,
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

TEST_F(SimTest, CallbackCannotCloseItsEventHandle)
{
    UniqueEvt context = RenderContext({L"Event/System/EventID"});
    BOOL closeResult = TRUE, renderedAfterwards = FALSE;
    DWORD closeError = 0;
    Recorder recorder([&](EVT_HANDLE event) {
        closeResult = EvtClose(event);
        closeError = GetLastError();
        EVT_VARIANT value{};
        DWORD used = 0, count = 0;
        renderedAfterwards = EvtRender(context.get(), event, EvtRenderEventValues, sizeof value, &value, &used, &count);
    });
    ASSERT_EQ(kOk, recorder.Subscribe(channel_));
    ASSERT_EQ(kOk, Write(L"Close", 1));
    Settle();
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
