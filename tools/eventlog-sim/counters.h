// The counters the control API reports (EVT_SIM_COUNTERS), kept as atomics so that
// writers and delivery threads can bump them without a lock.
#pragma once

#include "eventlog_sim.h"

#include <atomic>

namespace evtsim {

struct Counters {
    std::atomic<LONG64> opened[EVT_SIM_KIND_COUNT]{};
    std::atomic<LONG64> closed[EVT_SIM_KIND_COUNT]{};
    std::atomic<LONG64> doubleCloses{0};
    std::atomic<LONG64> unknownCloses{0};
    std::atomic<LONG64> eventsWritten{0};
    std::atomic<LONG64> deliveries{0};
    std::atomic<LONG64> errorDeliveries{0};
    std::atomic<LONG64> deliveriesAfterClose{0};

    EVT_SIM_COUNTERS Snapshot() const;
    void Reset();
};

Counters& GlobalCounters();

}  // namespace evtsim
