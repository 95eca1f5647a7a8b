// Timing and summaries: a monotonic clock, rounds of product and floor run in
// turns until their median is settled, the median's interval, and one figure
// (the product's cost beside its floor, judged against its goal).
#pragma once

#include <windows.h>

#include <algorithm>
#include <cmath>
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

inline double Median(std::vector<double> samples)
{
    if (samples.empty()) {
        return 0;
    }
    std::sort(samples.begin(), samples.end());
    const size_t n = samples.size();
    return n % 2 ? samples[n / 2] : (samples[n / 2 - 1] + samples[n / 2]) / 2;
}

inline Summary Summarize(const std::vector<double>& samples)
{
    Summary summary;
    if (samples.empty()) {
        return summary;
    }
    summary.median = Median(samples);
    summary.min = *std::min_element(samples.begin(), samples.end());
    summary.max = *std::max_element(samples.begin(), samples.end());
    summary.runs = static_cast<int>(samples.size());
    return summary;
}

// Where the true median lies, with 95 % confidence, whatever the samples'
// distribution: the sorted samples of ranks n/2 -+ 0.98 sqrt(n) (the binomial
// interval of the median; for few samples it is their whole range).
struct Interval {
    double low = 0;
    double high = 0;
};

inline Interval MedianInterval(std::vector<double> samples)
{
    Interval interval;
    if (samples.empty()) {
        return interval;
    }
    std::sort(samples.begin(), samples.end());
    const double n = static_cast<double>(samples.size());
    const double reach = 0.98 * std::sqrt(n);
    const auto rank = [&](double r) { return static_cast<size_t>(std::clamp(r, 1.0, n)) - 1; };
    interval.low = samples[rank(std::floor(n / 2 - reach))];
    interval.high = samples[rank(std::ceil(n / 2 + 1 + reach))];
    return interval;
}

// A median is settled when its interval lies within tolerance of it: relative
// (a ratio, settled at +-2 %) or in the figure's own unit.
inline bool Settled(const std::vector<double>& samples, double tolerance, bool relative)
{
    if (samples.size() < 2) {
        return false;
    }
    const Interval interval = MedianInterval(samples);
    const double allowed = relative ? tolerance * std::fabs(Median(samples)) : tolerance;
    return (interval.high - interval.low) / 2 <= allowed;
}

inline constexpr double kRatioTolerance = 0.02;

// How long a figure may keep measuring: at least minRounds, then until the
// medians settle, at most maxRounds or seconds.
struct Budget {
    int minRounds;
    int maxRounds;
    double seconds;
};

// Runs round(0), round(1), ... after one round that is not recorded (round(-1)),
// until settled() holds (asked from minRounds on) or the budget is spent.
// Returns the number of recorded rounds.
inline int RunRounds(const Budget& budget, const std::function<void(int)>& round, const std::function<bool()>& settled)
{
    round(-1);
    const double start = NowNs();
    int rounds = 0;
    while (rounds < budget.maxRounds) {
        round(rounds);
        ++rounds;
        if (rounds >= budget.minRounds && (settled() || (NowNs() - start) / 1e9 >= budget.seconds)) {
            break;
        }
    }
    return rounds;
}

// The ratios of value to floor over pairs of rounds, each pair one round with
// the product first and one with the floor first: what the first of a round
// leaves behind for the second (a warm heap, a cold cache) then weighs on both
// sides alike. A lone last round counts alone.
inline std::vector<double> PairRatios(const std::vector<double>& value, const std::vector<double>& floor)
{
    std::vector<double> ratios;
    const size_t n = std::min(value.size(), floor.size());
    for (size_t i = 0; i < n; i += 2) {
        const size_t end = std::min(i + 2, n);
        double v = 0;
        double f = 0;
        for (size_t j = i; j < end; ++j) {
            v += value[j];
            f += floor[j];
        }
        ratios.push_back(v / f);
    }
    return ratios;
}

// Product and floor, one of each per round, taking turns at going first so that
// both see the same machine state and the same noise; each returns its own cost
// in the figure's unit. Runs until the median of the ratios settles.
struct Paired {
    std::vector<double> product;
    std::vector<double> floor;
};

inline Paired Interleave(const Budget& budget, const std::function<double()>& product,
                         const std::function<double()>& floor)
{
    Paired paired;
    RunRounds(
        budget,
        [&](int round) {
            const bool productFirst = round % 2 == 0;
            const double first = productFirst ? product() : floor();
            const double second = productFirst ? floor() : product();
            if (round >= 0) {
                paired.product.push_back(productFirst ? first : second);
                paired.floor.push_back(productFirst ? second : first);
            }
        },
        [&] { return Settled(PairRatios(paired.product, paired.floor), kRatioTolerance, true); });
    return paired;
}

// One line of the report. value and floor are in unit. A figure with a floor
// has a ratio: the median of the ratios of value to floor over pairs of rounds
// (PairRatios), which follows the machine's load better than the ratio of the
// two medians. Its goal,
// if any, is a limit on the ratio, or on the value itself (valueGoal).
struct Figure {
    std::string section;
    std::string name;
    std::string unit;
    Summary value;
    Interval valueInterval;
    std::string floorName;
    Summary floor;
    double ratio = 0;
    Interval ratioInterval;
    int rounds = 0;
    std::string goal;  // empty: reported only
    double limit = 0;
    bool valueGoal = false;
    bool met = true;      // the median is within the goal
    bool decided = true;  // ... and so is the whole of its interval, or none of it
    std::string note;
    std::string belowZero;  // what a figure below zero means, when it can be
};

// value against floor (samples of the same index were measured side by side,
// in rounds that took turns at which went first).
inline Figure Compare(std::string section, std::string name, std::string unit, const std::vector<double>& value,
                      std::string floorName, const std::vector<double>& floor)
{
    Figure figure;
    figure.section = std::move(section);
    figure.name = std::move(name);
    figure.unit = std::move(unit);
    figure.value = Summarize(value);
    figure.valueInterval = MedianInterval(value);
    figure.floorName = std::move(floorName);
    figure.floor = Summarize(floor);
    const std::vector<double> ratios = PairRatios(value, floor);
    figure.ratio = Median(ratios);
    figure.ratioInterval = MedianInterval(ratios);
    figure.rounds = static_cast<int>(std::min(value.size(), floor.size()));
    return figure;
}

// A value alone (no floor), its interval from its own samples.
inline Figure Measured(std::string section, std::string name, std::string unit, const std::vector<double>& value)
{
    Figure figure;
    figure.section = std::move(section);
    figure.name = std::move(name);
    figure.unit = std::move(unit);
    figure.value = Summarize(value);
    figure.valueInterval = MedianInterval(value);
    figure.rounds = static_cast<int>(value.size());
    return figure;
}

// Sets the goal "at most limit" on the ratio (or the value) and judges it.
inline void SetGoal(Figure& figure, double limit, bool onValue, std::string text)
{
    figure.goal = std::move(text);
    figure.limit = limit;
    figure.valueGoal = onValue;
    const double judged = onValue ? figure.value.median : figure.ratio;
    const Interval interval = onValue ? figure.valueInterval : figure.ratioInterval;
    figure.met = judged <= limit;
    figure.decided = interval.high <= limit || interval.low > limit;
}

}  // namespace zeph::bench
