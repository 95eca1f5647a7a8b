// Events per second through the whole provider (subscription callback, render,
// format, parse, queue) against the bare subscriber's reading of the same
// events. Both time from the first write until the last delivery returned.

#include "bare_subscriber.h"
#include "benchmarks.h"
#include "eventlog-sim/eventlog_sim.h"
#include "scenario.h"
#include "support/host_value_sink.h"

#include <cstdio>
#include <iterator>

namespace zeph::bench {

namespace {

constexpr wchar_t kProviderChannel[] = L"ZephBench.EventPath.Provider";
constexpr wchar_t kFloorChannel[] = L"ZephBench.EventPath.Floor";

// The values each metric renders, in its order.
constexpr const wchar_t* kCrashPaths[] = {L"Event/System/TimeCreated/@SystemTime"};
constexpr const wchar_t* kLayeringPaths[] = {L"Event/System/EventID", L"Event/System/TimeCreated/@SystemTime"};

LONG64 Deliveries()
{
    EVT_SIM_COUNTERS counters{};
    ::EvtSimGetCounters(&counters);
    return counters.deliveries;
}

struct EventKind {
    const wchar_t* metric;
    const wchar_t* query;
    const wchar_t* publisher;
    const wchar_t* const* paths;
    DWORD pathCount;
    void (*write)(const wchar_t* channel, size_t count);
    bool drain;  // the crash metric queues what it parses: the host's query empties it
};

// A round is one batch of 1,000 events on each side, the two side by side in
// time. After each of its batches the host queries, as it would on its
// interval, so the crash queue never holds more than a batch; the query is not
// timed (the report path measures it).
constexpr size_t kBatch = 1000;

Figure MeasureKind(const EventKind& kind, ULONG logLevels, const char* figureName, const Options& options)
{
    const Budget budget = options.quick ? Budget{3, 3, 0} : Budget{21, 401, 15};

    HostedProvider provider(logLevels);
    provider.Subscribe(kind.metric, kProviderChannel, kind.query);
    BareSubscriber floor(kind.paths, kind.pathCount, kind.publisher);
    if (!floor.Subscribe(kFloorChannel, kind.query)) {
        Fail("the bare subscriber cannot subscribe");
    }
    auto* sink = new HostValueSink(false);  // keeps no values

    auto product = [&] {
        const LONG64 before = Deliveries();
        const double start = NowNs();
        kind.write(kProviderChannel, kBatch);
        WaitForDeliveries();
        const double elapsed = NowNs() - start;
        if (Deliveries() - before != static_cast<LONG64>(kBatch)) {
            Fail("the provider's subscription missed events");
        }
        if (kind.drain) {
            const LONG64 written = sink->Count();
            provider.Query(kind.metric, sink);
            if (sink->Count() - written != static_cast<LONG64>(kBatch) + 1) {
                Fail("the provider did not queue every crash");
            }
        }
        return elapsed / static_cast<double>(kBatch) / 1000.0;
    };
    auto bare = [&] {
        const LONG64 before = floor.Messages();
        const double start = NowNs();
        kind.write(kFloorChannel, kBatch);
        WaitForDeliveries();
        const double elapsed = NowNs() - start;
        if (floor.Messages() - before != static_cast<LONG64>(kBatch)) {
            Fail("the bare subscriber missed events");
        }
        return elapsed / static_cast<double>(kBatch) / 1000.0;
    };

    const Paired paired = Interleave(budget, product, bare);
    floor.Close();
    sink->Release();

    Figure figure = Compare("event path", figureName, "us/event", paired.product, "bare subscriber", paired.floor);
    char note[96];
    std::snprintf(note, sizeof note, "%.0f events/s vs %.0f; %zu events a round", 1e6 / figure.value.median,
                  1e6 / figure.floor.median, kBatch);
    figure.note = note;
    return figure;
}

}  // namespace

std::vector<Figure> MeasureEventPath(const Options& options)
{
    AddChannel(kProviderChannel);
    AddChannel(kFloorChannel);

    const EventKind crash{
        kCrashMetric,     kCrashQuery, L"Application Error", kCrashPaths, static_cast<DWORD>(std::size(kCrashPaths)),
        WriteCrashEvents, true};
    // Messages that classify as "volumes ready" or as nothing: a log-on event
    // would read the registry and the service log, which the service-log
    // figure measures on its own.
    const EventKind layering{kLayeringMetric,
                             kLayeringQuery,
                             kLayeringPublisher,
                             kLayeringPaths,
                             static_cast<DWORD>(std::size(kLayeringPaths)),
                             WriteLayeringEvents,
                             false};

    std::vector<Figure> figures;
    figures.push_back(MeasureKind(crash, kProductionLogLevels, "crash events", options));
    figures.push_back(MeasureKind(layering, kProductionLogLevels, "layering events", options));
    for (Figure& figure : figures) {
        SetGoal(figure, 1.1, false, "<= 1.1x");
    }
    // For the record: the info line per event is the host's choice.
    figures.push_back(MeasureKind(layering, kAllLogLevels, "layering events, info log on", options));
    return figures;
}

}  // namespace zeph::bench
