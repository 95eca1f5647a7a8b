// Subscribing: which requests are refused, which events a query lets through, and how
// deliveries arrive (order, thread, only events written after the subscription).
#include "sim_recorder.h"

#include <thread>

namespace simtest {
namespace {

class SubscribeTest : public SimTest {};

DWORD WINAPI IgnoreEvent(EVT_SUBSCRIBE_NOTIFY_ACTION, PVOID, EVT_HANDLE) { return ERROR_SUCCESS; }

DWORD SubscribeError(EVT_HANDLE session, const wchar_t* channel, const wchar_t* query,
                     EVT_SUBSCRIBE_CALLBACK callback, DWORD flags) {
    EVT_HANDLE h = EvtSubscribe(session, nullptr, channel, query, nullptr, nullptr, callback, flags);
    if (h != nullptr) {
        EvtClose(h);
        return ERROR_SUCCESS;
    }
    return GetLastError();
}

TEST_F(SubscribeTest, RefusesUnknownChannelsAndUnsupportedModes) {
    const DWORD future = EvtSubscribeToFutureEvents;
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, SubscribeError(nullptr, L"No Such Channel", nullptr, IgnoreEvent, future));
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, SubscribeError(nullptr, L"", nullptr, IgnoreEvent, future));
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, SubscribeError(nullptr, nullptr, L"*", IgnoreEvent, future));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, SubscribeError(nullptr, channel_.c_str(), nullptr, nullptr, future));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED},
              SubscribeError(nullptr, channel_.c_str(), nullptr, IgnoreEvent, EvtSubscribeStartAtOldestRecord));
    EXPECT_EQ(DWORD{ERROR_NOT_SUPPORTED},
              SubscribeError(reinterpret_cast<EVT_HANDLE>(0x1234), channel_.c_str(), nullptr, IgnoreEvent, future));
    EXPECT_EQ(0, Counters().opened[EVT_SIM_KIND_SUBSCRIPTION]);

    // Channel names are case-insensitive, for subscribing and for adding.
    EXPECT_EQ(DWORD{ERROR_SUCCESS}, SubscribeError(nullptr, L"aPPLICATION", nullptr, IgnoreEvent, future));
    EXPECT_EQ(DWORD{ERROR_ALREADY_EXISTS}, EvtSimAddChannel(L"SYSTEM"));
    EVT_SIM_EVENT nowhere{L"No Such Channel", L"P", 1, 0, L"", 0};
    EXPECT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, EvtSimWriteEvent(&nowhere));
}

TEST_F(SubscribeTest, RefusesQueriesItCannotParse) {
    const wchar_t* bad[] = {
        L"",
        L"**",
        L"<QueryList><Query Id='0'/></QueryList>",
        L"*[System[EventID=]]",
        L"*[System[EventID=1000]",
        L"*[System[EventID=99999999999]]",
        L"*[System[Level=2]]",
        L"*[System[Provider[@Name='Unterminated]]]",
        L"*[System[Provider[@Name='Mixed quotes\"]]]",
        L"*[System[EventID=1 and]]",
        L"*[System[(EventID=1]]",
        L"*[System[EventID=1 order EventID=2]]",
        L"*[System[EventID=1]] trailing",
    };
    for (const wchar_t* query : bad) {
        EXPECT_EQ(DWORD{ERROR_EVT_INVALID_QUERY},
                  SubscribeError(nullptr, channel_.c_str(), query, IgnoreEvent, EvtSubscribeToFutureEvents))
            << "query: " << testing::PrintToString(std::wstring(query));
    }
}

TEST_F(SubscribeTest, QueriesSelectByProviderAndEventId) {
    struct Case {
        const wchar_t* query;
        std::vector<std::wstring> expected;  // messages of the events let through, in order
    };
    const std::vector<Case> cases = {
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
    for (const Case& c : cases) {
        recorders.push_back(std::make_unique<Recorder>());
        ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorders.back()->Subscribe(channel_, c.query));
    }
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Application Error", 1000, L"e0"));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"application error", 1001, L"e1"));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Other", 1000, L"e2"));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Other", 2, L"e3"));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Application Error", 2, L"e4"));
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));

    for (size_t i = 0; i < cases.size(); ++i) {
        std::vector<std::wstring> seen;
        for (const Call& call : recorders[i]->Calls()) seen.push_back(call.message);
        EXPECT_EQ(cases[i].expected, seen) << "query #" << i;
    }
}

TEST_F(SubscribeTest, DeliversInWriteOrderOnItsOwnThread) {
    Recorder recorder;
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_));
    std::vector<USHORT> written;
    for (USHORT id = 1; id <= 200; ++id) {
        ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Order", id));
        written.push_back(id);
    }
    ASSERT_TRUE(recorder.WaitForCalls(written.size()));
    EXPECT_EQ(written, recorder.EventIds());

    const std::vector<Call> calls = recorder.Calls();
    for (const Call& call : calls) {
        EXPECT_EQ(EvtSubscribeActionDeliver, call.action);
        EXPECT_NE(GetCurrentThreadId(), call.threadId);
        EXPECT_EQ(calls.front().threadId, call.threadId);
    }
}

TEST_F(SubscribeTest, DeliversOnlyEventsWrittenAfterSubscribing) {
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Past", 1));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Past", 2));
    Recorder recorder;
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Future", 3));
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));
    EXPECT_EQ(std::vector<USHORT>{3}, recorder.EventIds());

    // A second subscriber joining later does not get the first one's backlog either.
    Recorder late;
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, late.Subscribe(channel_));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, Write(L"Future", 4));
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));
    EXPECT_EQ((std::vector<USHORT>{3, 4}), recorder.EventIds());
    EXPECT_EQ(std::vector<USHORT>{4}, late.EventIds());
}

TEST_F(SubscribeTest, ConcurrentWritersKeepEachWritersOrder) {
    constexpr int kWriters = 4;
    constexpr int kPerWriter = 250;
    Recorder first, second;
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, first.Subscribe(channel_));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, second.Subscribe(channel_));

    std::vector<std::thread> writers;
    std::atomic<int> failures{0};
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (int i = 0; i < kPerWriter; ++i) {
                if (Write(L"Writer", static_cast<USHORT>(w * 1000 + i)) != ERROR_SUCCESS) ++failures;
            }
        });
    }
    for (auto& t : writers) t.join();
    ASSERT_EQ(0, failures.load());
    ASSERT_TRUE(EvtSimWaitForDeliveries(kWaitMs));

    for (Recorder* recorder : {&first, &second}) {
        const std::vector<USHORT> ids = recorder->EventIds();
        ASSERT_EQ(size_t{kWriters * kPerWriter}, ids.size());
        int next[kWriters] = {};
        for (USHORT id : ids) {
            const int writer = id / 1000;
            EXPECT_EQ(next[writer], id % 1000) << "writer " << writer;
            next[writer] = id % 1000 + 1;
        }
    }
    const EVT_SIM_COUNTERS counters = Counters();
    EXPECT_EQ(kWriters * kPerWriter, counters.eventsWritten);
    EXPECT_EQ(2 * kWriters * kPerWriter, counters.deliveries);
    EXPECT_EQ(counters.opened[EVT_SIM_KIND_EVENT], counters.closed[EVT_SIM_KIND_EVENT]);
}

TEST_F(SubscribeTest, DeliversErrorsWithTheCodeAsEventArgument) {
    Recorder recorder;
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, recorder.Subscribe(channel_, L"*[System[EventID=1]]"));
    ASSERT_EQ(DWORD{ERROR_SUCCESS}, EvtSimDeliverError(channel_.c_str(), ERROR_EVT_QUERY_RESULT_STALE));
    ASSERT_EQ(DWORD{ERROR_EVT_CHANNEL_NOT_FOUND}, EvtSimDeliverError(L"No Such Channel", 5));
    ASSERT_TRUE(recorder.WaitForCalls(1));

    const Call call = recorder.Calls().at(0);
    EXPECT_EQ(EvtSubscribeActionError, call.action);
    EXPECT_EQ(DWORD{ERROR_EVT_QUERY_RESULT_STALE}, call.errorCode);
    EXPECT_EQ(1, Counters().errorDeliveries);
    EXPECT_EQ(0, Counters().opened[EVT_SIM_KIND_EVENT]);
}

}  // namespace
}  // namespace simtest
