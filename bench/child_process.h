// Running parts of the benchmark in fresh processes of this same program, and
// handing their figures back through a temporary file. Each event-log section
// leaves the process with what the provider deliberately leaves open per event
// (hundreds of thousands of publisher handles and render buffers); a section
// run after another would be measured on the other's heap.
#pragma once

#include "measure.h"

#include <windows.h>

#include <string>
#include <vector>

namespace zeph::bench {

// A new, empty file in the temporary folder; deleted by the caller.
std::wstring NewTemporaryFile();

// Runs this program with arguments and waits for it. Returns false when it
// cannot be started or does not exit with 0.
bool RunSelf(const std::wstring& arguments);

// One figure per line, tab-separated. The texts of figures hold no tabs.
bool WriteFigures(const std::wstring& path, const std::vector<Figure>& figures);
bool ReadFigures(const std::wstring& path, std::vector<Figure>& figures);

}  // namespace zeph::bench
