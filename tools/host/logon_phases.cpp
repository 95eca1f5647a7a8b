#include "logon_phases.h"

#include "layering/quillon_keys.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace zeph::host {

namespace {

struct Moment {
    const wchar_t* key;
    const wchar_t* name;
};

constexpr Moment kMoments[] = {
    {kLogonTimestampKey, L"log-on"},
    {kLogonResponseTimestampKey, L"the manager's response"},
    {kVolumesReadyTimestampKey, L"volumes ready"},
    {kAllDoneTimestampKey, L"all done"},
};

struct PhaseSpan {
    size_t from;  // into kMoments
    size_t to;
    const wchar_t* name;
    const wchar_t* jsonName;
};

constexpr PhaseSpan kPhases[] = {
    {0, 1, L"log-on to the manager's response", L"logon_to_response_ms"},
    {1, 2, L"the manager's response to volumes ready", L"response_to_volumes_ready_ms"},
    {2, 3, L"volumes ready to all done", L"volumes_ready_to_all_done_ms"},
    {0, 3, L"the whole log-on", L"logon_to_all_done_ms"},
};

}  // namespace

std::vector<LogonPhase> LogonPhases(const std::vector<SinkWrite>& values)
{
    std::optional<ULONGLONG> stamps[std::size(kMoments)];
    bool any = false;
    for (size_t i = 0; i < std::size(kMoments); ++i) {
        const auto found = std::find_if(values.begin(), values.end(),
                                        [&](const SinkWrite& value) { return value.key == kMoments[i].key; });
        if (found != values.end()) {
            any = true;
            if (found->type == VT_UI8) {
                stamps[i] = found->number;
            }
        }
    }
    std::vector<LogonPhase> phases;
    if (!any) {
        return phases;
    }
    for (const PhaseSpan& span : kPhases) {
        LogonPhase phase{span.name, span.jsonName, std::nullopt, {}};
        const Moment& from = kMoments[span.from];
        const Moment& to = kMoments[span.to];
        for (size_t i : {span.from, span.to}) {
            if (!phase.note.empty()) {
                break;
            }
            if (!stamps[i]) {
                phase.note = std::wstring(L"no time stamp for ") + kMoments[i].name;
            } else if (*stamps[i] == 0) {
                phase.note = std::wstring(L"the time stamp for ") + kMoments[i].name + L" is 0";
            }
        }
        if (phase.note.empty()) {
            phase.milliseconds = static_cast<LONGLONG>(*stamps[span.to]) - static_cast<LONGLONG>(*stamps[span.from]);
            if (*phase.milliseconds == 0) {
                phase.note = L"equal stamps: a moment the provider has not seen takes the stamp before it";
            } else if (*phase.milliseconds < 0) {
                phase.note = std::wstring(to.name) + L" is stamped before " + from.name;
            }
        }
        phases.push_back(std::move(phase));
    }
    return phases;
}

std::wstring DurationText(LONGLONG milliseconds)
{
    const ULONGLONG size = milliseconds < 0 ? 0 - static_cast<ULONGLONG>(milliseconds) : milliseconds;
    const ULONGLONG hours = size / 3600000;
    const ULONGLONG minutes = size / 60000 % 60;
    wchar_t seconds[32] = {};
    std::swprintf(seconds, 32, L"%llu.%03llu s", size / 1000 % 60, size % 1000);
    std::wstring text = milliseconds < 0 ? L"-" : L"";
    if (hours > 0) {
        text += std::to_wstring(hours) + L" h ";
    }
    if (hours > 0 || minutes > 0) {
        text += std::to_wstring(minutes) + L" min ";
    }
    return text + seconds;
}

}  // namespace zeph::host
