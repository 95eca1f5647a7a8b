// The value keys the layering metric writes, and the name it writes its time
// stamps under. The host side reads them from here too (zeph-host shows how long
// each phase of a log-on took from the four time stamps).
#pragma once

namespace zeph {

inline constexpr wchar_t kMetricNamespace[] = L"quillon";
// The four moments of a log-on, in the order they happen and are written.
inline constexpr wchar_t kLogonTimestampKey[] = L"quillon|logon_timestamp";
inline constexpr wchar_t kLogonResponseTimestampKey[] = L"quillon|logon_response_timestamp";
inline constexpr wchar_t kVolumesReadyTimestampKey[] = L"quillon|volumes_ready_timestamp";
inline constexpr wchar_t kAllDoneTimestampKey[] = L"quillon|all_done_timestamp";
inline constexpr wchar_t kManagerHostKey[] = L"quillon|mgr";
inline constexpr wchar_t kInstancesFlagKey[] = L"quillon|instances";
inline constexpr wchar_t kInstancesFlagValue[] = L"true";
inline constexpr wchar_t kInstanceKey[] = L"quillon|instances|*";

}  // namespace zeph
