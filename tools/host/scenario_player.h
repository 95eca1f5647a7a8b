// Replays a scenario's steps in order on the caller's thread. Every written
// event is delivered before the next step starts (a bounded wait), so a step
// sees the metrics in the state its predecessors left them in. Each step is
// announced on standard error.
#pragma once

#include "replay.h"
#include "scenario.h"
#include "simulator_controls.h"

#include <functional>

namespace zeph::host {

// Upper bound of each wait for the simulated event log's deliveries.
inline constexpr DWORD kDeliveryWaitMs = 30000;

class ScenarioPlayer {
public:
    // stopEvent: signalled by Ctrl+C; query: runs one query of every metric; subscribedChannels:
    // the channels event XML is written to (others are skipped).
    ScenarioPlayer(const SimulatorControls& simulator, HANDLE stopEvent, std::function<void()> query,
                   std::vector<std::wstring> subscribedChannels = {})
        : simulator_(simulator),
          stopEvent_(stopEvent),
          query_(std::move(query)),
          replayer_(simulator, std::move(subscribedChannels))
    {
    }

    // False when stopped before the end. A step that fails throws HostError(ScenarioFailed);
    // a malformed event file HostError(ScenarioInvalid), after the events before the fault
    // were written and delivered.
    bool Play(const Scenario& scenario);

private:
    void Write(size_t number, const EventStep& step);
    void Append(size_t number, const AppendStep& step);
    void WaitForDeliveries(size_t number);
    void WriteXml(size_t number, const EventXml& event);
    bool Replay(size_t number, const ReplayStep& step);

    const SimulatorControls& simulator_;
    HANDLE stopEvent_;
    std::function<void()> query_;
    EventReplayer replayer_;
};

}  // namespace zeph::host
