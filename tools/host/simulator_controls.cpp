#include "simulator_controls.h"

#include "exit_codes.h"
#include "win/module_path.h"

namespace zeph::host {

namespace {

constexpr wchar_t kEventLogDll[] = L"wevtapi.dll";

template <typename Function>
Function Lookup(HMODULE module, const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

}  // namespace

SimulatorControls::SimulatorControls()
{
    // The one the provider already loaded, or the one it would load.
    if (!::GetModuleHandleExW(0, kEventLogDll, &module_)) {
        module_ = ::LoadLibraryW(kEventLogDll);
    }
    if (module_ == nullptr) {
        throw HostError(ExitCode::ScenarioFailed,
                        L"scenario replay needs the simulated event log, but no wevtapi.dll can be loaded");
    }
    const auto isSimulator = Lookup<decltype(&EvtSimIsSimulator)>(module_, "EvtSimIsSimulator");
    addChannel_ = Lookup<decltype(&EvtSimAddChannel)>(module_, "EvtSimAddChannel");
    writeEvent_ = Lookup<decltype(&EvtSimWriteEvent)>(module_, "EvtSimWriteEvent");
    writeEventData_ = Lookup<decltype(&EvtSimWriteEventData)>(module_, "EvtSimWriteEventData");
    waitForDeliveries_ = Lookup<decltype(&EvtSimWaitForDeliveries)>(module_, "EvtSimWaitForDeliveries");
    if (isSimulator == nullptr || !isSimulator() || addChannel_ == nullptr || writeEvent_ == nullptr || writeEventData_ == nullptr ||
        waitForDeliveries_ == nullptr) {
        const std::wstring path = ModuleFilePath(module_);
        ::FreeLibrary(module_);
        module_ = nullptr;
        throw HostError(ExitCode::ScenarioFailed,
                        L"scenario replay needs the simulated event log, but the wevtapi.dll in use (" + path +
                            L") is the system's event log");
    }
}

SimulatorControls::~SimulatorControls()
{
    if (module_ != nullptr) {
        ::FreeLibrary(module_);
    }
}

}  // namespace zeph::host
