// Channel and provider names compare case-insensitively; maps are keyed by a folded copy.
#pragma once

#include <string>
#include <string_view>

namespace evtsim {

// Upper-cases a name with the invariant locale (ASCII takes a fast path).
std::wstring FoldCase(std::wstring_view name);

}  // namespace evtsim
