// Shared pieces of the simulator tests: a fixture with a channel of its own, and a
// subscription that records what its callback saw.
#pragma once

#include <windows.h>
#include <winevt.h>

#include <gtest/gtest.h>

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "eventlog_sim.h"

namespace simtest {

// Upper bound of every wait; reaching it means the behaviour under test is broken.
constexpr DWORD kWaitMs = 10000;

struct EvtCloser {
    void operator()(EVT_HANDLE h) const { EvtClose(h); }
};
using UniqueEvt = std::unique_ptr<void, EvtCloser>;

EVT_SIM_COUNTERS Counters();

struct Call {
    EVT_SUBSCRIBE_NOTIFY_ACTION action = EvtSubscribeActionDeliver;
    std::optional<USHORT> eventId;  // rendered from the event handle
    std::wstring message;           // formatted from the event handle
    DWORD errorCode = 0;            // for EvtSubscribeActionError
    DWORD threadId = 0;
};

// A push subscription whose callback records each call, then runs an optional hook
// on the delivery thread while the event handle is still valid.
class Recorder {
public:
    using Hook = std::function<void(EVT_SUBSCRIBE_NOTIFY_ACTION, EVT_HANDLE)>;

    explicit Recorder(Hook hook = {});
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // ERROR_SUCCESS, or the last error EvtSubscribe left.
    DWORD Subscribe(const std::wstring& channel, const wchar_t* query = nullptr);
    EVT_HANDLE Handle() const { return subscription_; }
    BOOL Close();  // EvtClose of the subscription, once

    bool WaitForCalls(size_t count);
    std::vector<Call> Calls();
    std::vector<USHORT> EventIds();

private:
    static DWORD WINAPI OnEvent(EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event);

    Hook hook_;
    UniqueEvt renderContext_;
    EVT_HANDLE subscription_ = nullptr;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Call> calls_;
};

// A test with a fresh channel, counters reset, and a check that nothing leaked.
class SimTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    DWORD Write(const wchar_t* publisher, USHORT eventId, const wchar_t* message = L"message", DWORD flags = 0,
                ULONGLONG timeCreated = 0x01d9000000000000ull);

    std::wstring channel_;
};

}  // namespace simtest
