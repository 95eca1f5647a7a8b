// The simulated event log's control exports, looked up at run time on the
// wevtapi.dll this process uses. The host links no event log library, so the
// same binary runs on Windows against the real event log; there these exports
// do not exist and scenario replay is refused.
//
// Ownership: holds one reference to wevtapi.dll for its life, so the functions
// stay valid after the provider is released.
#pragma once

#include "eventlog-sim/eventlog_sim.h"
#include "win/unique_resource.h"

#include <windows.h>

#include <string>

namespace zeph::host {

class SimulatorControls {
public:
    // Throws HostError(ScenarioFailed) naming the DLL when it is not the simulator.
    SimulatorControls();
    SimulatorControls(const SimulatorControls&) = delete;
    SimulatorControls& operator=(const SimulatorControls&) = delete;

    // ERROR_SUCCESS, or ERROR_ALREADY_EXISTS for a channel that is there.
    DWORD AddChannel(const std::wstring& channel) const { return addChannel_(channel.c_str()); }
    DWORD WriteEvent(const EVT_SIM_EVENT& event) const { return writeEvent_(&event); }
    DWORD WriteEventData(const EVT_SIM_EVENT_DATA& event) const { return writeEventData_(&event); }
    bool WaitForDeliveries(DWORD timeoutMs) const { return waitForDeliveries_(timeoutMs) != FALSE; }

private:
    unique_hmodule module_;
    decltype(&EvtSimAddChannel) addChannel_ = nullptr;
    decltype(&EvtSimWriteEvent) writeEvent_ = nullptr;
    decltype(&EvtSimWriteEventData) writeEventData_ = nullptr;
    decltype(&EvtSimWaitForDeliveries) waitForDeliveries_ = nullptr;
};

}  // namespace zeph::host
