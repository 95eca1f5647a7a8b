// Registers a type library file, as the agent's installer does for Agent.tlb
// (the provider's own type library imports it). Throws HostError(RunFailed).
#pragma once

#include <string>

namespace zeph::host {

void RegisterTypeLibraryFile(const std::wstring& path);
void UnregisterTypeLibraryFile(const std::wstring& path);

}  // namespace zeph::host
