// Draining pending crashes through QueryMetric into a sink that accepts
// everything, against the same sink calls made directly: the flag, then one
// value per crash, each with its key and instance BSTRs and a VT_BSTR VARIANT
// that is cleared after the call.

#include "appcrash/crash_text.h"
#include "benchmarks.h"
#include "scenario.h"
#include "support/host_value_sink.h"
#include "win/com_strings.h"

#include <cstdio>
#include <string>
#include <thread>
#include <vector>

namespace zeph::bench {

namespace {

constexpr wchar_t kChannel[] = L"ZephBench.ReportPath";
constexpr wchar_t kFlagKey[] = L"appcrash|contained";
constexpr wchar_t kDetailsKey[] = L"appcrash|crash_details|*";

// The detail texts the crash metric builds for the first count crash events.
std::vector<std::wstring> DetailTexts(size_t count)
{
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    ::GetComputerNameExW(ComputerNameNetBIOS, name, &size);
    const std::wstring hostPart = std::wstring(L"<br />Host Name: ") + name;
    const auto& messages = CrashMessages();
    std::vector<std::wstring> texts;
    texts.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        texts.push_back(ReplaceLineBreaks(messages[i % messages.size()]) + FormatCrashTime(CrashTime(i)) + hostPart);
    }
    return texts;
}

HRESULT WriteDirect(IMetricValueSink* sink, const wchar_t* key, const std::wstring& name, const std::wstring& text)
{
    const unique_bstr keyText = MakeBstr(key);
    const unique_bstr nameText = MakeBstr(name);
    ScopedVariant value;
    value.SetString(text);
    return sink->WriteMetricValue(keyText.get(), nameText.get(), value.get());
}

HRESULT WriteAllDirect(IMetricValueSink* sink, const std::vector<std::wstring>& texts)
{
    HRESULT result = WriteDirect(sink, kFlagKey, kFlagKey, L"true");
    for (size_t i = 0; i < texts.size() && SUCCEEDED(result); ++i) {
        result = WriteDirect(sink, kDetailsKey, std::to_wstring(i + 1), texts[i]);
    }
    return result;
}

// The host queries long after the crashes came in, when their texts have left
// the processors' own caches: each timed drain starts after this has pushed
// them out, on every processor in turn (the event log's thread wrote the
// provider's texts on another one), and the floor's drains likewise.
// Otherwise the smaller runs, whose texts were just written, would be
// measured warm and the largest cold. (A last-level cache larger than 64 MiB
// keeps them, at every size alike.)
void EvictCaches()
{
    static std::vector<unsigned char> scratch(64u << 20);
    DWORD_PTR process = 0;
    DWORD_PTR system = 0;
    ::GetProcessAffinityMask(::GetCurrentProcess(), &process, &system);
    for (DWORD_PTR cpu = 1; cpu != 0 && cpu <= process; cpu <<= 1) {
        if ((process & cpu) == 0) {
            continue;
        }
        std::thread toucher([cpu] {
            ::SetThreadAffinityMask(::GetCurrentThread(), cpu);
            for (size_t i = 0; i < scratch.size(); i += 64) {
                ++scratch[i];
            }
        });
        toucher.join();
    }
}

}  // namespace

std::vector<Figure> MeasureReportPath(const Options& options)
{
    const std::vector<size_t> sizes =
        options.quick ? std::vector<size_t>{1000, 10000} : std::vector<size_t>{1000, 10000, 100000};
    const Budget budget = options.quick ? Budget{3, 3, 0} : Budget{11, 61, 60};

    AddChannel(kChannel);
    HostedProvider provider(kProductionLogLevels);
    provider.Subscribe(kCrashMetric, kChannel, kCrashQuery);
    auto* sink = new HostValueSink(false);  // keeps no values
    std::vector<std::vector<std::wstring>> texts;
    for (const size_t size : sizes) {
        texts.push_back(DetailTexts(size));
    }

    auto product = [&](size_t i) {
        const size_t size = sizes[i];
        // Filling the queue is the event path's business; only the drain is timed.
        WriteCrashEvents(kChannel, size);
        WaitForDeliveries();
        const LONG64 written = sink->Count();
        EvictCaches();
        const double start = NowNs();
        const HRESULT result = provider.Query(kCrashMetric, sink);
        const double elapsed = NowNs() - start;
        if (result != S_OK || sink->Count() - written != static_cast<LONG64>(size) + 1) {
            Fail("the provider did not report every pending crash");
        }
        return elapsed / 1e6;
    };
    auto direct = [&](size_t i) {
        const LONG64 written = sink->Count();
        EvictCaches();
        const double start = NowNs();
        const HRESULT result = WriteAllDirect(sink, texts[i]);
        const double elapsed = NowNs() - start;
        if (result != S_OK || sink->Count() - written != static_cast<LONG64>(sizes[i]) + 1) {
            Fail("the direct writes failed");
        }
        return elapsed / 1e6;
    };

    // In a round every size is drained by both sides in turn, so that what every
    // fill leaves open in the process weighs on each of them alike.
    std::vector<std::vector<double>> productSamples(sizes.size());
    std::vector<std::vector<double>> floorSamples(sizes.size());
    RunRounds(
        budget,
        [&](int round) {
            for (size_t i = 0; i < sizes.size(); ++i) {
                const bool productFirst = round % 2 == 0;
                const double first = productFirst ? product(i) : direct(i);
                const double second = productFirst ? direct(i) : product(i);
                if (round >= 0) {
                    productSamples[i].push_back(productFirst ? first : second);
                    floorSamples[i].push_back(productFirst ? second : first);
                }
            }
        },
        [&] {
            // Every size's ratio, and the largest step of growth.
            for (size_t i = 0; i < sizes.size(); ++i) {
                if (!Settled(PairRatios(productSamples[i], floorSamples[i]), kRatioTolerance, true)) {
                    return false;
                }
            }
            const size_t last = sizes.size() - 1;
            return Settled(PairRatios(productSamples[last], productSamples[last - 1]), kRatioTolerance, true);
        });
    sink->Release();

    std::vector<Figure> figures;
    for (size_t i = 0; i < sizes.size(); ++i) {
        Figure figure = Compare("report path", "drain " + std::to_string(sizes[i]) + " crashes", "ms",
                                productSamples[i], "sink calls alone", floorSamples[i]);
        SetGoal(figure, 1.2, false, "<= 1.2x");
        char note[64];
        std::snprintf(note, sizeof note, "%.2f us a crash",
                      figure.value.median * 1000.0 / static_cast<double>(sizes[i]));
        figure.note = note;
        figures.push_back(figure);
    }

    // Linear: ten times the crashes may cost at most twelve times the time. The
    // goal is on the largest step; the smaller one shows the shape (small drains
    // fit in the caches).
    for (size_t i = 1; i < sizes.size(); ++i) {
        if (sizes[i] != sizes[i - 1] * 10) {
            continue;
        }
        Figure step =
            Compare("report path", "growth " + std::to_string(sizes[i - 1]) + " -> " + std::to_string(sizes[i]), "ms",
                    productSamples[i], figures[i - 1].name, productSamples[i - 1]);
        if (sizes[i] >= 100000) {
            SetGoal(step, 12.0, false, "<= 12x");
        }
        figures.push_back(step);
    }
    return figures;
}

}  // namespace zeph::bench
