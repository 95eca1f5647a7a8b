// The command line of zeph-host. ParseOptions throws HostError(ExitCode::Usage)
// with a one-line message for anything it does not understand.
#pragma once

#include "metric/log_level.h"

#include <windows.h>

#include <string>
#include <vector>

namespace zeph::host {

inline constexpr wchar_t kDefaultProgId[] = L"ZephAgent.EventLogProvider";
inline constexpr unsigned kDefaultIntervalSeconds = 10;

struct Options {
    bool help = false;
    bool version = false;  // --version: the host's version and the provider's, then exit
    std::wstring config;   // --config
    std::wstring dll;      // --dll: load this file instead of creating by ProgID
    std::wstring progId = kDefaultProgId;
    ULONG logLevels = LevelBit(LogLevel::Error) | LevelBit(LogLevel::Warning);
    unsigned intervalSeconds = kDefaultIntervalSeconds;
    bool once = false;
    bool json = false;
    std::wstring scenario;           // --scenario
    std::wstring replay;             // --replay: a file of Windows event XML
    std::wstring registerTypeLib;    // --register-tlb: register this file and exit
    std::wstring unregisterTypeLib;  // --unregister-tlb
};

Options ParseOptions(const std::vector<std::wstring>& arguments);

// "error,warning" and the like; "all" and "none" too. Throws HostError(Usage).
ULONG ParseLogLevels(const std::wstring& text);

const wchar_t* HelpText();

}  // namespace zeph::host
