// The metric names the provider knows (compared without regard to letter case).
// The host side reads them from here too (zeph-host names them when a configured
// name is none of them).
#pragma once

namespace zeph {

inline constexpr wchar_t kAppCrashMetricName[] = L"eventlog|eventlog_appcrash";
inline constexpr wchar_t kQuillonMetricName[] = L"eventlog|eventlog_quillon";
inline constexpr const wchar_t* kMetricNames[] = {kAppCrashMetricName, kQuillonMetricName};

}  // namespace zeph
