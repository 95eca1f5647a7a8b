// Registers a type library file, as the agent's installer does for Agent.tlb
// (the provider's own type library imports it). Each returns the line that says
// what it did; throws HostError(RunFailed).
#pragma once

#include <string>

namespace zeph::host {

// "registered the type library AgentLib 1.0 {46ED...} from 'C:\...\Agent.tlb'"
std::wstring RegisterTypeLibraryFile(const std::wstring& path);
// "unregistered the type library AgentLib 1.0 {46ED...}"
std::wstring UnregisterTypeLibraryFile(const std::wstring& path);

}  // namespace zeph::host
