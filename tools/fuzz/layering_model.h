// What the layering metric must report, worked out from the events and files
// the fuzz targets write, independently of the provider's code: the agent's
// documented wordings decide which moment a message marks, a Tessera is a
// mount line ("MOUNTED-READ;<path>;<id>" and a line end), and the query writes
// the four time stamps, the manager's host and the Tesseras in that order.
#pragma once

#include "provider_session.h"
#include "support/host_value_sink.h"
#include "write_check.h"

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

namespace zeph::fuzz {

struct Tessera {
    std::wstring id;
    std::wstring path;
};

enum class Moment { LogOn, LogOnResponse, VolumesReady, LogOff, AllDone, Other };

// The moment a message marks: it must begin with one of the agent's wordings.
Moment ClassifyMessage(const std::wstring& message);

// Appends the mount entries of text from start on, in order.
void AppendMountEntries(const std::wstring& text, size_t start, std::vector<Tessera>& tesseras);

// The layering metric fed events one by one, as the provider is.
class LayeringModel {
public:
    // searchServiceLog: what the service-log search at an all-done event finds (its
    // Tesseras, or nothing when it fails).
    void Deliver(const FuzzEvent& event, const std::vector<Tessera>& searchServiceLog = {});

    // A query's writes, with the manager's host read from the registry then.
    std::vector<SinkWrite> Query(const std::optional<std::wstring>& managerHost);

    // "Quillon Agent Event: ..." for every event handled, in order.
    const std::vector<std::wstring>& AgentLines() const { return agentLines_; }

private:
    ULONGLONG logOn_ = 0;
    ULONGLONG response_ = 0;
    ULONGLONG volumesReady_ = 0;
    ULONGLONG allDone_ = 0;
    ULONGLONG time_ = 0;     // the last time an event carried
    std::wstring message_;   // the last message that could be formatted
    bool searched_ = false;  // the service log was searched since the last log-on
    std::vector<Tessera> tesseras_;
    std::vector<std::wstring> agentLines_;
};

}  // namespace zeph::fuzz
