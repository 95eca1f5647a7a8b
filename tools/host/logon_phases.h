// How long each phase of a log-on took, from the layering metric's four time stamps
// as one query reported them: log-on to the manager's response, to volumes ready, to
// all done, and the whole. The provider gives a moment it has not seen the stamp of
// the moment before, so a phase of 0 ms may be one not seen; a stamp it did not
// write, or wrote as 0, leaves its phases unknown rather than guessed.
// Pure functions.
#pragma once

#include "support/host_value_sink.h"

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace zeph::host {

struct LogonPhase {
    const wchar_t* name;                   // "log-on to the manager's response"
    const wchar_t* jsonName;               // "logon_to_response_ms"
    std::optional<LONGLONG> milliseconds;  // none: a stamp missing or 0
    std::wstring note;                     // why it is unknown, or what a duration of 0 or below means; empty otherwise
};

// The four phases, in order; empty when the values hold none of the four time stamps.
std::vector<LogonPhase> LogonPhases(const std::vector<SinkWrite>& values);

// "1.237 s", "2 min 5.000 s", "1 h 0 min 0.001 s"; negative durations with a leading '-'.
std::wstring DurationText(LONGLONG milliseconds);

}  // namespace zeph::host
