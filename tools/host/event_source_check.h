// zeph-host's look at each configured metric before it reports: the provider takes a
// channel that does not exist, a query the event log rejects, or a name it does not
// know with success and then reports nothing, so the host checks the channel
// (EvtOpenChannelConfig) and the query (a one-event EvtQuery) the way an administrator
// would, and says what it finds. The metric elements are only read: the provider gets
// them as written.
//
// The Event Log functions are looked up at run time on the wevtapi.dll the provider
// uses (the host links no event log library). Where they are missing, not
// implemented, or open a channel that cannot exist (Wine's own wevtapi.dll is a
// stub that answers every call with success), nothing is checked, and
// UnansweredNote says so once.
#pragma once

#include "configuration.h"

#include "win/unique_resource.h"

#include <windows.h>
#include <winevt.h>

#include <optional>
#include <string>
#include <vector>

namespace zeph::host {

class EventSourceCheck {
public:
    EventSourceCheck();
    EventSourceCheck(const EventSourceCheck&) = delete;
    EventSourceCheck& operator=(const EventSourceCheck&) = delete;

    // The warnings for one subscribed metric, each a line without "zeph-host: warning: ".
    // taken: whether the provider created a metric for the name.
    std::vector<std::wstring> Check(const MetricConfig& metric, bool taken);

    // After the checks: a line (without "zeph-host: note: ") when the event log
    // answered none of them, naming it and what to do; nothing otherwise.
    std::optional<std::wstring> UnansweredNote() const;

private:
    std::vector<std::wstring> CheckChannel(const std::wstring& channel);
    std::vector<std::wstring> CheckQuery(const std::wstring& channel, const std::wstring& query);
    void Close(EVT_HANDLE handle) const;

    unique_hmodule module_;
    bool answers_ = false;     // the event log's functions are there and answer for real
    bool unanswered_ = false;  // a check was skipped for want of answers
    decltype(&EvtOpenChannelConfig) openChannelConfig_ = nullptr;
    decltype(&EvtQuery) query_ = nullptr;
    decltype(&EvtNext) next_ = nullptr;
    decltype(&EvtClose) close_ = nullptr;
};

}  // namespace zeph::host
