// Timing and summaries: a monotonic clock, the median/min/max of repeated
// runs, and one figure (the product's cost beside its floor).
#pragma once

#include <windows.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

namespace zeph::bench {

// Nanoseconds on the performance counter.
inline double NowNs()
{
    static const double nsPerTick = [] {
        LARGE_INTEGER frequency{};
        ::QueryPerformanceFrequency(&frequency);
        return 1e9 / static_cast<double>(frequency.QuadPart);
    }();
    LARGE_INTEGER counter{};
    ::QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) * nsPerTick;
}

struct Summary {
    double median = 0;
    double min = 0;
    double max = 0;
    int runs = 0;
};

inline Summary Summarize(std::vector<double> samples)
{
    Summary summary;
    if (samples.empty()) {
        return summary;
    }
    std::sort(samples.begin(), samples.end());
    const size_t n = samples.size();
    summary.median = n % 2 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
    summary.min = samples.front();
    summary.max = samples.back();
    summary.runs = static_cast<int>(n);
    return summary;
}

// One line of the report. value and floor are in unit; ratio is value's median
// over floor's median. A figure without a floor (floorName empty) has no ratio.
struct Figure {
    std::string section;
    std::string name;
    std::string unit;
    Summary value;
    std::string floorName;
    Summary floor;
    double ratio = 0;
    std::string goal;  // empty: reported only
    bool met = true;
    std::string note;
};

// Runs product and floor alternately, runs times each, after one unrecorded
// round of both, so that both see the same machine state and the same noise.
// Each callable returns its own measured cost in the figure's unit.
inline void Alternate(int runs, const std::function<double()>& product, const std::function<double()>& floor,
                      std::vector<double>& productSamples, std::vector<double>& floorSamples)
{
    product();
    floor();
    for (int i = 0; i < runs; ++i) {
        if (i % 2 == 0) {
            productSamples.push_back(product());
            floorSamples.push_back(floor());
        } else {
            floorSamples.push_back(floor());
            productSamples.push_back(product());
        }
    }
}

}  // namespace zeph::bench
