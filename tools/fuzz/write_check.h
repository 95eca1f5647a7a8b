// Comparing what the provider wrote with what it must have written, naming the
// first difference without printing texts of any length in full.
#pragma once

#include "support/host_value_sink.h"

#include <string>
#include <vector>

namespace zeph::fuzz {

// The text as it stands before its first NUL (what a formatted message or a read log keeps).
std::wstring BeforeNul(const std::wstring& text);

void ExpectSameText(const std::wstring& actual, const std::wstring& expected, const std::string& what);
void ExpectSameTexts(const std::vector<std::wstring>& actual, const std::vector<std::wstring>& expected,
                     const std::string& what);

bool SameWrites(const std::vector<SinkWrite>& actual, const std::vector<SinkWrite>& expected);
// A query's writes, in order; every one accepted.
void ExpectWrites(const std::vector<SinkWrite>& actual, const std::vector<SinkWrite>& expected);

}  // namespace zeph::fuzz
