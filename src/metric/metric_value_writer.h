// Writes one value into the host's value sink: key and name as BSTRs, the value
// as a VARIANT that belongs to us and is cleared afterwards.
// A null sink is a failed write (E_POINTER): a host that passes no usable sink
// goes down each write's ordinary failure path instead of crashing us.
// Allocation failures throw HResultError(E_OUTOFMEMORY).
#pragma once

#include <agent.h>

#include <string_view>

namespace zeph {

[[nodiscard]] HRESULT WriteMetricString(IMetricValueSink* sink, std::wstring_view key, std::wstring_view name,
                                        std::wstring_view text);
HRESULT WriteMetricUInt64(IMetricValueSink* sink, std::wstring_view key, std::wstring_view name, ULONGLONG number);

}  // namespace zeph
