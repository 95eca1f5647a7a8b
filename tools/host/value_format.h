// How the values of one query are printed: a readable table (the default) or
// JSON lines. Pure functions; the caller prints the result in one piece.
#pragma once

#include "support/host_value_sink.h"

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zeph::host {

// What one metric's query gave.
struct MetricQuery {
    unsigned query = 0;  // 1, 2, ... in this run
    std::wstring metric;
    HRESULT result = S_OK;
    std::vector<SinkWrite> values;
};

// Milliseconds since 1970-01-01 UTC as "2024-05-14 08:02:11.418 UTC" (iso: "2024-05-14T08:02:11.418Z");
// nothing for values beyond what a FILETIME holds.
std::optional<std::wstring> UtcText(ULONGLONG unixMilliseconds, bool iso);

// A SYSTEMTIME as "2024-05-14 08:02:11 UTC" (iso: "2024-05-14T08:02:11.418Z").
std::wstring SystemTimeText(const SYSTEMTIME& utc, bool iso);

// A JSON string literal, quotes included.
std::wstring JsonString(std::wstring_view text);

// "Query 2 at 2024-05-14 08:02:11 UTC"
std::wstring TableHeader(unsigned query, const SYSTEMTIME& utcNow);

// "<metric>: N value(s)[, query failed: ...]", then, when there are values, a heading
// line (key, instance, value) and one aligned line per value; after the layering
// metric's time stamps, how long each phase of the log-on took.
std::wstring TableLines(const MetricQuery& query);

// One JSON object per value, then one for the metric's query result, which carries
// "phases" (milliseconds, null where a stamp is missing or 0) after the layering
// metric's time stamps.
std::wstring JsonLines(const MetricQuery& query, const SYSTEMTIME& utcNow);

}  // namespace zeph::host
