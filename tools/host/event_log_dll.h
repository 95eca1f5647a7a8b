// The event log library of this process (the one the provider loaded, or the one it
// would load) and lookups of its exports. The host links no event log library, so the
// same executable runs against the real event log and the simulated one.
#pragma once

#include "win/unique_resource.h"

#include <windows.h>

namespace zeph::host {

// A reference of our own on wevtapi.dll; empty when it cannot be loaded.
inline unique_hmodule LoadEventLogDll()
{
    constexpr wchar_t kEventLogDll[] = L"wevtapi.dll";
    unique_hmodule module;
    if (!::GetModuleHandleExW(0, kEventLogDll, module.put())) {
        module.reset(::LoadLibraryW(kEventLogDll));
    }
    return module;
}

// The export as a typed function pointer; null when the library does not have it.
template <typename Function>
Function LookupExport(const unique_hmodule& module, const char* name)
{
    return reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module.get(), name)));
}

}  // namespace zeph::host
