// The figures as a table on standard output and as a JSON file.
#pragma once

#include "measure.h"

#include <string>
#include <vector>

namespace zeph::bench {

void PrintTable(const std::vector<Figure>& figures);

// Returns false when the file cannot be written.
bool WriteJson(const std::wstring& path, const std::vector<Figure>& figures, bool quick, double seconds);

}  // namespace zeph::bench
