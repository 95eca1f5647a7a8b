#include "subscription.h"

#include "counters.h"
#include "handle_table.h"
#include "pending_deliveries.h"

#include <thread>

namespace evtsim {
namespace {

// Delivery threads are detached and may still be leaving our code after EvtClose returns,
// so the DLL must never be unloaded once one has started.
void PinModule()
{
    static std::once_flag once;
    std::call_once(once, [] {
        HMODULE self;
        GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_PIN,
                           reinterpret_cast<LPCWSTR>(&PinModule), &self);
    });
}

}  // namespace

Subscription::Subscription(QueryFilter filter, PVOID context, EVT_SUBSCRIBE_CALLBACK callback)
    : filter_(std::move(filter)), context_(context), callback_(callback)
{
}

void Subscription::Start()
{
    PinModule();
    // Detached rather than joined: EvtClose may run under a loader lock (a DLL's detach),
    // where waiting for a thread to exit would deadlock. The thread holds its own reference.
    std::thread([self = shared_from_this()] { self->Run(); }).detach();
}

void Subscription::Enqueue(Delivery delivery)
{
    {
        std::lock_guard lock(mutex_);
        if (closed_) {
            return;
        }
        queue_.push_back(std::move(delivery));
        Pending().Add();
    }
    wake_.notify_one();
}

void Subscription::Close()
{
    std::deque<Delivery> dropped;  // released outside the lock
    {
        std::unique_lock lock(mutex_);
        closed_ = true;
        dropped.swap(queue_);
        wake_.notify_all();
        if (threadId_ != GetCurrentThreadId()) {
            callbackDone_.wait(lock, [this] { return !inCallback_; });
        }
        closeReturned_ = true;
    }
    Pending().Done(static_cast<std::int64_t>(dropped.size()));
}

void Subscription::Run()
{
    std::unique_lock lock(mutex_);
    threadId_ = GetCurrentThreadId();
    for (;;) {
        wake_.wait(lock, [this] { return closed_ || !queue_.empty(); });
        if (closed_) {
            return;
        }
        Delivery delivery = std::move(queue_.front());
        queue_.pop_front();
        inCallback_ = true;
        lock.unlock();

        Deliver(delivery);
        delivery = {};

        lock.lock();
        inCallback_ = false;
        callbackDone_.notify_all();
        Pending().Done();
    }
}

void Subscription::Deliver(const Delivery& delivery)
{
    Counters& counters = GlobalCounters();
    // Cannot happen while Close waits for callbacks; kept as a self-check the tests read.
    if (closeReturned_) {
        ++counters.deliveriesAfterClose;
    }

    // A callback that throws must not take the delivery thread (and the process) down.
    if (!delivery.event) {
        ++counters.errorDeliveries;
        try {
            callback_(EvtSubscribeActionError, context_,
                      reinterpret_cast<EVT_HANDLE>(static_cast<ULONG_PTR>(delivery.errorCode)));
        } catch (...) {
        }
        return;
    }
    EVT_HANDLE event;
    try {
        event = Handles().Add(EVT_SIM_KIND_EVENT, std::const_pointer_cast<EventRecord>(delivery.event));
    } catch (...) {
        return;  // out of memory: the event is lost, as the service drops events under pressure
    }
    ++counters.deliveries;
    try {
        callback_(EvtSubscribeActionDeliver, context_, event);
    } catch (...) {
    }
    Handles().Release(event);
}

}  // namespace evtsim
