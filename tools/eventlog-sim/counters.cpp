#include "counters.h"

namespace evtsim {

EVT_SIM_COUNTERS Counters::Snapshot() const
{
    EVT_SIM_COUNTERS out{};
    for (int k = 0; k < EVT_SIM_KIND_COUNT; ++k) {
        out.opened[k] = opened[k].load();
        out.closed[k] = closed[k].load();
    }
    out.doubleCloses = doubleCloses.load();
    out.unknownCloses = unknownCloses.load();
    out.eventsWritten = eventsWritten.load();
    out.deliveries = deliveries.load();
    out.errorDeliveries = errorDeliveries.load();
    out.deliveriesAfterClose = deliveriesAfterClose.load();
    return out;
}

void Counters::Reset()
{
    for (int k = 0; k < EVT_SIM_KIND_COUNT; ++k) {
        opened[k] = 0;
        closed[k] = 0;
    }
    doubleCloses = 0;
    unknownCloses = 0;
    eventsWritten = 0;
    deliveries = 0;
    errorDeliveries = 0;
    deliveriesAfterClose = 0;
}

Counters& GlobalCounters()
{
    // Never destroyed: delivery threads may still touch it while the process exits.
    static Counters* counters = new Counters;
    return *counters;
}

}  // namespace evtsim
