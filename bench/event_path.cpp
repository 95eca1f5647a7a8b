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

// A run is ten batches of 1,000 events. After each batch the host queries, as
// it would on its interval, so the crash queue never holds more than a batch;
// the queries are not timed (the report path measures them).
constexpr size_t kBatch = 1000;

Figure MeasureKind(const EventKind& kind, ULONG logLevels, const char* figureName, const Options& options)
{
    const size_t batches = options.quick ? 2 : 10;
    const size_t events = batches * kBatch;
    const int runs = options.quick ? 3 : 15;

    HostedProvider provider(logLevels);
    provider.Subscribe(kind.metric, kProviderChannel, kind.query);
    BareSubscriber floor(kind.paths, kind.pathCount, kind.publisher);
    if (!floor.Subscribe(kFloorChannel, kind.query)) {
        Fail("the bare subscriber cannot subscribe");
    }
    auto* sink = new HostValueSink(false);  // keeps no values

    auto product = [&] {
        double elapsed = 0;
        for (size_t batch = 0; batch < batches; ++batch) {
            const LONG64 before = Deliveries();
            const double start = NowNs();
            kind.write(kProviderChannel, kBatch);
            WaitForDeliveries();
            elapsed += NowNs() - start;
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
        }
        return elapsed / static_cast<double>(events) / 1000.0;
    };
    auto bare = [&] {
        double elapsed = 0;
        for (size_t batch = 0; batch < batches; ++batch) {
            const LONG64 before = floor.Messages();
            const double start = NowNs();
            kind.write(kFloorChannel, kBatch);
            WaitForDeliveries();
            elapsed += NowNs() - start;
            if (floor.Messages() - before != static_cast<LONG64>(kBatch)) {
                Fail("the bare subscriber missed events");
            }
        }
        return elapsed / static_cast<double>(events) / 1000.0;
    };

    std::vector<double> productSamples;
    std::vector<double> floorSamples;
    Alternate(runs, product, bare, productSamples, floorSamples);
    floor.Close();
    sink->Release();

    Figure figure;
    figure.section = "event path";
    figure.name = figureName;
    figure.unit = "us/event";
    figure.value = Summarize(productSamples);
    figure.floorName = "bare subscriber";
    figure.floor = Summarize(floorSamples);
    figure.ratio = figure.value.median / figure.floor.median;
    figure.goal = "<= 1.5x floor";
    figure.met = figure.ratio <= 1.5;
    char note[160];
    std::snprintf(note, sizeof note, "%.0f events/s vs %.0f; %zu events a run, a query every %zu",
                  1e6 / figure.value.median, 1e6 / figure.floor.median, events, kBatch);
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
    Figure verbose = MeasureKind(layering, kAllLogLevels, "layering events, info log on", options);
    verbose.goal.clear();  // the info line per event is the host's choice
    verbose.met = true;
    figures.push_back(verbose);
    return figures;
}

}  // namespace zeph::bench
