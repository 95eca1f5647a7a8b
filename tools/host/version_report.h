// zeph-host --version: the host's own version and, when a provider can be created
// (from --dll, or by ProgID when registered), the version block of the DLL that
// actually serves it.
#pragma once

#include "options.h"

#include <string>

namespace zeph::host {

// "1.0.0.1" from the file's version block; empty when it has none.
std::wstring FileVersion(const std::wstring& path);

// Prints the lines on standard output. Throws HostError when the DLL or ProgID the user
// named explicitly cannot be loaded; the default ProgID unregistered is only reported.
void PrintVersions(const Options& options);

}  // namespace zeph::host
