#include "pending_deliveries.h"

#include <chrono>

namespace evtsim {

void PendingDeliveries::Done(std::int64_t n)
{
    if (n != 0 && count_.fetch_sub(n) == n) {
        // Taking the mutex orders this notify after a waiter's check of the count.
        std::lock_guard lock(mutex_);
        idle_.notify_all();
    }
}

bool PendingDeliveries::WaitIdle(DWORD timeoutMs)
{
    std::unique_lock lock(mutex_);
    auto idle = [this] { return count_.load() == 0; };
    if (timeoutMs == INFINITE) {
        idle_.wait(lock, idle);
        return true;
    }
    return idle_.wait_for(lock, std::chrono::milliseconds(timeoutMs), idle);
}

PendingDeliveries& Pending()
{
    static PendingDeliveries* pending = new PendingDeliveries;  // outlives delivery threads
    return *pending;
}

}  // namespace evtsim
