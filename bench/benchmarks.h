// The benchmarks: each measures one path of the provider beside its floor and
// returns its figures.
#pragma once

#include "measure.h"

#include <vector>

namespace zeph::bench {

struct Options {
    bool quick = false;  // fewer and smaller runs: checks that everything works, measures little
};

std::vector<Figure> MeasureEventPath(const Options& options);
std::vector<Figure> MeasureReportPath(const Options& options);
std::vector<Figure> MeasureDetailText(const Options& options);
std::vector<Figure> MeasureServiceLog(const Options& options);
std::vector<Figure> MeasureMemory(const Options& options);

// The memory benchmark runs each side in a fresh process of this program;
// this is that process's entry. Returns the exit code.
int RunMemoryChild(const wchar_t* side, const wchar_t* resultPath, bool quick);

}  // namespace zeph::bench
