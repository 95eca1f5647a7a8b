#include "simulator_controls.h"

#include "event_log_dll.h"
#include "exit_codes.h"
#include "win/module_path.h"

namespace zeph::host {

SimulatorControls::SimulatorControls() : module_(LoadEventLogDll())
{
    if (!module_) {
        throw HostError(ExitCode::ScenarioFailed,
                        L"scenario replay needs the simulated event log, but no wevtapi.dll can be loaded");
    }
    const auto isSimulator = LookupExport<decltype(&EvtSimIsSimulator)>(module_, "EvtSimIsSimulator");
    addChannel_ = LookupExport<decltype(&EvtSimAddChannel)>(module_, "EvtSimAddChannel");
    writeEvent_ = LookupExport<decltype(&EvtSimWriteEvent)>(module_, "EvtSimWriteEvent");
    writeEventData_ = LookupExport<decltype(&EvtSimWriteEventData)>(module_, "EvtSimWriteEventData");
    waitForDeliveries_ = LookupExport<decltype(&EvtSimWaitForDeliveries)>(module_, "EvtSimWaitForDeliveries");
    if (isSimulator == nullptr || !isSimulator() || addChannel_ == nullptr || writeEvent_ == nullptr ||
        writeEventData_ == nullptr || waitForDeliveries_ == nullptr) {
        const std::wstring path = ModuleFilePath(module_.get());
        throw HostError(ExitCode::ScenarioFailed,
                        L"scenario replay needs the simulated event log, but the wevtapi.dll in use (" + path +
                            L") is the system's event log");
    }
}

}  // namespace zeph::host
