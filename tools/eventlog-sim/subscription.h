// One push subscription: a queue of deliveries and the thread that makes its callbacks,
// so that one subscription's events arrive in write order and never on the writer's thread.
#pragma once

#include "event_record.h"
#include "query_filter.h"

#include <windows.h>
#include <winevt.h>

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>

namespace evtsim {

struct Delivery {
    std::shared_ptr<const EventRecord> event;  // null: an error delivery
    DWORD errorCode = 0;
};

class Subscription : public std::enable_shared_from_this<Subscription> {
public:
    Subscription(QueryFilter filter, PVOID context, EVT_SUBSCRIBE_CALLBACK callback);

    // Starts the delivery thread; throws std::system_error if it cannot.
    void Start();

    const QueryFilter& Filter() const { return filter_; }

    // Queues a delivery unless the subscription is closed.
    void Enqueue(Delivery delivery);

    // Drops queued deliveries and stops the thread. Waits for a running callback to
    // return, unless called from that callback: then the thread stops once it returns.
    void Close();

private:
    void Run();
    void Deliver(const Delivery& delivery);

    const QueryFilter filter_;
    const PVOID context_;
    const EVT_SUBSCRIBE_CALLBACK callback_;

    std::mutex mutex_;
    std::condition_variable wake_;          // work queued or closed
    std::condition_variable callbackDone_;  // a callback returned
    std::deque<Delivery> queue_;
    bool closed_ = false;
    bool inCallback_ = false;
    DWORD threadId_ = 0;
    std::atomic<bool> closeReturned_{false};
};

}  // namespace evtsim
