// Replays a scenario's steps in order on the caller's thread. Every written
// event is delivered before the next step starts (a bounded wait), so a step
// sees the metrics in the state its predecessors left them in. Each step is
// announced on standard error.
#pragma once

#include "scenario.h"
#include "simulator_controls.h"

#include <functional>

namespace zeph::host {

// Upper bound of each wait for the simulated event log's deliveries.
inline constexpr DWORD kDeliveryWaitMs = 30000;

class ScenarioPlayer {
public:
    // stopEvent: signalled by Ctrl+C; query: runs one query of every metric.
    ScenarioPlayer(const SimulatorControls& simulator, HANDLE stopEvent, std::function<void()> query)
        : simulator_(simulator), stopEvent_(stopEvent), query_(std::move(query))
    {
    }

    // False when stopped before the end. A step that fails throws HostError(ScenarioFailed).
    bool Play(const Scenario& scenario);

private:
    void Write(size_t number, const EventStep& step);
    void Append(size_t number, const AppendStep& step);
    void WaitForDeliveries(size_t number);

    const SimulatorControls& simulator_;
    HANDLE stopEvent_;
    std::function<void()> query_;
};

}  // namespace zeph::host
