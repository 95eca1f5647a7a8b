// Private bytes per crash event, parsed and reported: 100,000 crash events
// through the provider in batches of 1,000, each batch drained by a query as
// the host would, against the same events through the bare subscriber, which
// leaves open per event exactly what the metric deliberately leaves open (its
// render buffer and publisher metadata handle). The difference is the
// provider's own growth. Private bytes also move with the heaps' layout, so
// the bytes in use in every heap are counted too, block by block, which is
// exact. Each side runs in a fresh process of this program so that neither
// inherits the other's heap.

#include "bare_subscriber.h"
#include "benchmarks.h"
#include "child_process.h"
#include "eventlog-sim/eventlog_sim.h"
#include "scenario.h"
#include "support/host_value_sink.h"

#include <psapi.h>

#include <cstdio>
#include <cwchar>
#include <functional>
#include <string>

namespace zeph::bench {

namespace {

constexpr wchar_t kChannel[] = L"ZephBench.Memory";
constexpr size_t kBatch = 1000;
constexpr const wchar_t* kCrashPaths[] = {L"Event/System/TimeCreated/@SystemTime"};

struct ChildResult {
    double bytesPerEvent = 0;
    double heapBytesPerEvent = 0;
    LONG64 events = 0;
    LONG64 publishersLeftOpen = 0;
};

SIZE_T PrivateBytes()
{
    PROCESS_MEMORY_COUNTERS_EX counters{};
    counters.cb = sizeof counters;
    if (!::GetProcessMemoryInfo(::GetCurrentProcess(), reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters),
                                sizeof counters)) {
        Fail("GetProcessMemoryInfo failed");
    }
    // PrivateUsage is documented as equal to PagefileUsage (the commit charge);
    // Wine fills only the latter.
    return counters.PrivateUsage != 0 ? counters.PrivateUsage : counters.PagefileUsage;
}

// Bytes in use in every heap of the process: what is allocated and not yet
// freed, whatever the heaps' layout and free space.
double HeapBytesInUse()
{
    HANDLE heaps[64];
    const DWORD count = ::GetProcessHeaps(64, heaps);
    double total = 0;
    for (DWORD i = 0; i < count && i < 64; ++i) {
        if (!::HeapLock(heaps[i])) {
            continue;
        }
        PROCESS_HEAP_ENTRY entry{};
        while (::HeapWalk(heaps[i], &entry)) {
            if (entry.wFlags & PROCESS_HEAP_ENTRY_BUSY) {
                total += static_cast<double>(entry.cbData);
            }
        }
        ::HeapUnlock(heaps[i]);
    }
    return total;
}

bool RunChild(const wchar_t* side, bool quick, ChildResult& result)
{
    const std::wstring resultPath = NewTemporaryFile();
    std::wstring arguments = std::wstring(L"--memory-child ") + side + L" \"" + resultPath + L"\"";
    if (quick) {
        arguments += L" --quick";
    }
    bool read = false;
    if (RunSelf(arguments)) {
        if (FILE* file = _wfopen(resultPath.c_str(), L"r")) {
            read = std::fscanf(file, "%lf %lf %lld %lld", &result.bytesPerEvent, &result.heapBytesPerEvent,
                               &result.events, &result.publishersLeftOpen) == 4;
            std::fclose(file);
        }
    }
    ::DeleteFileW(resultPath.c_str());
    return read;
}

}  // namespace

int RunMemoryChild(const wchar_t* side, const wchar_t* resultPath, bool quick)
{
    const size_t batches = quick ? 10 : 100;
    AddChannel(kChannel);
    const bool provider = std::wcscmp(side, L"provider") == 0;

    // Both sides build the same objects; only who subscribes differs.
    HostedProvider hosted(kProductionLogLevels);
    BareSubscriber bare(kCrashPaths, 1, L"Application Error");
    auto* sink = new HostValueSink(false);  // keeps no values
    std::function<void()> batch;
    if (provider) {
        hosted.Subscribe(kCrashMetric, kChannel, kCrashQuery);
        batch = [&] {
            WriteCrashEvents(kChannel, kBatch);
            WaitForDeliveries();
            const LONG64 written = sink->Count();
            if (hosted.Query(kCrashMetric, sink) != S_OK ||
                sink->Count() - written != static_cast<LONG64>(kBatch) + 1) {
                Fail("the provider did not report a batch");
            }
        };
    } else {
        if (!bare.Subscribe(kChannel, kCrashQuery)) {
            Fail("the bare subscriber cannot subscribe");
        }
        batch = [&] {
            const LONG64 before = bare.Messages();
            WriteCrashEvents(kChannel, kBatch);
            WaitForDeliveries();
            if (bare.Messages() - before != static_cast<LONG64>(kBatch)) {
                Fail("the bare subscriber missed events");
            }
        };
    }

    // Warm-up: threads, host name, first heap growth.
    for (int i = 0; i < 3; ++i) {
        batch();
    }
    const LONG64 openBefore = ::EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA);
    const SIZE_T before = PrivateBytes();
    const double heapBefore = HeapBytesInUse();
    for (size_t i = 0; i < batches; ++i) {
        batch();
    }
    const SIZE_T after = PrivateBytes();
    const double heapAfter = HeapBytesInUse();
    const LONG64 openAfter = ::EvtSimOpenHandles(EVT_SIM_KIND_PUBLISHER_METADATA);
    sink->Release();

    const LONG64 events = static_cast<LONG64>(batches * kBatch);
    FILE* file = _wfopen(resultPath, L"w");
    if (file == nullptr) {
        return 3;
    }
    std::fprintf(file, "%.3f %.3f %lld %lld\n",
                 (static_cast<double>(after) - static_cast<double>(before)) / static_cast<double>(events),
                 (heapAfter - heapBefore) / static_cast<double>(events), events, openAfter - openBefore);
    std::fclose(file);
    return 0;
}

std::vector<Figure> MeasureMemory(const Options& options)
{
    // A round is one process of each side, so few of them.
    const Budget budget = options.quick ? Budget{1, 1, 0} : Budget{5, 15, 60};
    // Settled to a tenth of each goal.
    constexpr double kPrivateGoal = 16.0;
    constexpr double kHeapGoal = 1.0;

    std::vector<double> provider;
    std::vector<double> floor;
    std::vector<double> own;
    std::vector<double> providerHeap;
    std::vector<double> floorHeap;
    std::vector<double> ownHeap;
    LONG64 events = 0;
    RunRounds(
        budget,
        [&](int round) {
            if (round < 0) {
                return;  // each side starts afresh: nothing to warm up
            }
            ChildResult p;
            ChildResult f;
            const bool providerFirst = round % 2 == 0;
            if ((providerFirst && !RunChild(L"provider", options.quick, p)) || !RunChild(L"floor", options.quick, f) ||
                (!providerFirst && !RunChild(L"provider", options.quick, p))) {
                Fail("a memory run failed");
            }
            if (p.publishersLeftOpen != p.events || f.publishersLeftOpen != f.events) {
                Fail("the two sides did not leave the same handles open");
            }
            provider.push_back(p.bytesPerEvent);
            floor.push_back(f.bytesPerEvent);
            own.push_back(p.bytesPerEvent - f.bytesPerEvent);
            providerHeap.push_back(p.heapBytesPerEvent);
            floorHeap.push_back(f.heapBytesPerEvent);
            ownHeap.push_back(p.heapBytesPerEvent - f.heapBytesPerEvent);
            events = p.events;
        },
        [&] { return Settled(own, kPrivateGoal / 10, false) && Settled(ownHeap, kHeapGoal / 10, false); });

    const std::string parsed = std::to_string(events) + " events parsed and reported";
    Figure total = Compare("memory", "private bytes per crash event", "B/event", provider,
                           "bare subscriber, same left open", floor);
    total.note = parsed;

    // Heap layout moves private bytes by a few tens of bytes per event either
    // way; anything the provider kept per event would be at least one heap
    // block on top.
    Figure beyond = Measured("memory", "provider's own, private bytes", "B/event", own);
    SetGoal(beyond, kPrivateGoal, true, "<= 16 B");
    beyond.note = "provider minus floor, process by process";
    beyond.belowZero =
        "below zero: the provider's process grew less than the floor's; private bytes follow the heaps' "
        "layout, so less than the floor means nothing kept per event, not memory given back";

    Figure heap = Compare("memory", "heap bytes in use per crash event", "B/event", providerHeap,
                          "bare subscriber, same left open", floorHeap);
    heap.note = "every heap of the process walked, before and after";

    // Counted block by block, so exact: zero beyond the floor means nothing kept.
    Figure heapBeyond = Measured("memory", "provider's own, heap bytes in use", "B/event", ownHeap);
    SetGoal(heapBeyond, kHeapGoal, true, "<= 1 B");
    heapBeyond.note = "provider minus floor, process by process";
    heapBeyond.belowZero =
        "below zero: fewer bytes in use in the provider's process than in the floor's, by blocks the two "
        "sides' runtimes allocate differently; nothing is kept per event";
    return {total, beyond, heap, heapBeyond};
}

}  // namespace zeph::bench
