// The command line of zeph-host: one table of its options, which both the parser
// and --help read. ParseOptions throws HostError(ExitCode::Usage) with a one-line
// message for anything it does not understand.
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

enum class OptionId {
    Config,
    Dll,
    ProgId,
    Once,
    Interval,
    Json,
    Log,
    Scenario,
    Replay,
    RegisterTlb,
    UnregisterTlb,
    Version,
    Help
};

struct OptionSpec {
    OptionId id;
    std::wstring spellings;  // "-c, --config": every spelling the parser takes, as --help shows them
    std::wstring value;      // "FILE"; empty for a switch
    std::wstring meaning;    // one paragraph; --help wraps it
};

// In the order --help lists them.
const std::vector<OptionSpec>& OptionTable();

Options ParseOptions(const std::vector<std::wstring>& arguments);

// "error,warning" and the like; "all" and "none" too. Throws HostError(Usage).
ULONG ParseLogLevels(const std::wstring& text);

// The usage text: synopsis, the option table, the output, the exit-code table.
std::wstring HelpText();

}  // namespace zeph::host
