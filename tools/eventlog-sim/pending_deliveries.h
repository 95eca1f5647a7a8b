// Counts deliveries that are queued or whose callback is running, across all
// subscriptions, so that EvtSimWaitForDeliveries can wait for the log to go idle.
#pragma once

#include <windows.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace evtsim {

class PendingDeliveries {
public:
    void Add(std::int64_t n = 1) { count_.fetch_add(n); }
    void Done(std::int64_t n = 1);
    // TRUE once nothing is pending; FALSE if timeoutMs (INFINITE allowed) passed first.
    bool WaitIdle(DWORD timeoutMs);

private:
    std::atomic<std::int64_t> count_{0};
    std::mutex mutex_;
    std::condition_variable idle_;
};

PendingDeliveries& Pending();

}  // namespace evtsim
