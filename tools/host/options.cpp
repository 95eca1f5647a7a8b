#include "options.h"

#include "exit_codes.h"
#include "support/text.h"

#include <cwchar>
#include <optional>

namespace zeph::host {

namespace {

constexpr unsigned kMaxIntervalSeconds = 86400;

[[noreturn]] void UsageError(const std::wstring& text)
{
    throw HostError(ExitCode::Usage, text + L" (see zeph-host --help)");
}

unsigned ParseSeconds(const std::wstring& option, const std::wstring& text)
{
    unsigned value = 0;
    for (wchar_t c : text) {
        if (c < L'0' || c > L'9' || value > kMaxIntervalSeconds) {
            value = 0;
            break;
        }
        value = value * 10 + static_cast<unsigned>(c - L'0');
    }
    if (text.empty() || value == 0 || value > kMaxIntervalSeconds) {
        UsageError(option + L" takes a number of seconds from 1 to 86400, not '" + text + L"'");
    }
    return value;
}

}  // namespace

ULONG ParseLogLevels(const std::wstring& text)
{
    const std::wstring lower = AsciiLower(text);
    if (lower == L"none") {
        return 0;
    }
    if (lower == L"all") {
        return LevelBit(LogLevel::Error) | LevelBit(LogLevel::Warning) | LevelBit(LogLevel::Info);
    }
    ULONG levels = 0;
    size_t start = 0;
    while (start <= lower.size()) {
        size_t end = lower.find(L',', start);
        if (end == std::wstring::npos) {
            end = lower.size();
        }
        const std::wstring word = lower.substr(start, end - start);
        if (word == L"error") {
            levels |= LevelBit(LogLevel::Error);
        } else if (word == L"warning") {
            levels |= LevelBit(LogLevel::Warning);
        } else if (word == L"info") {
            levels |= LevelBit(LogLevel::Info);
        } else {
            UsageError(L"--log takes error, warning, info (comma-separated), all or none, not '" + text + L"'");
        }
        start = end + 1;
    }
    return levels;
}

Options ParseOptions(const std::vector<std::wstring>& arguments)
{
    Options options;
    bool dllGiven = false;
    bool progIdGiven = false;
    bool intervalGiven = false;
    for (size_t i = 0; i < arguments.size(); ++i) {
        std::wstring name = arguments[i];
        std::optional<std::wstring> inlineValue;
        if (name.starts_with(L"--")) {
            const size_t equals = name.find(L'=');
            if (equals != std::wstring::npos) {
                inlineValue = name.substr(equals + 1);
                name.resize(equals);
            }
        }
        auto value = [&]() -> std::wstring {
            if (inlineValue) {
                return *inlineValue;
            }
            if (i + 1 >= arguments.size()) {
                UsageError(L"option " + name + L" needs a value");
            }
            return arguments[++i];
        };
        auto flag = [&]() {
            if (inlineValue) {
                UsageError(L"option " + name + L" takes no value");
            }
        };

        if (name == L"--help" || name == L"-h" || name == L"-?" || name == L"/?") {
            flag();
            options.help = true;
        } else if (name == L"--version") {
            flag();
            options.version = true;
        } else if (name == L"--config" || name == L"-c") {
            options.config = value();
        } else if (name == L"--dll") {
            options.dll = value();
            dllGiven = true;
        } else if (name == L"--progid") {
            options.progId = value();
            progIdGiven = true;
        } else if (name == L"--log") {
            options.logLevels = ParseLogLevels(value());
        } else if (name == L"--interval") {
            options.intervalSeconds = ParseSeconds(name, value());
            intervalGiven = true;
        } else if (name == L"--once") {
            flag();
            options.once = true;
        } else if (name == L"--json") {
            flag();
            options.json = true;
        } else if (name == L"--scenario") {
            options.scenario = value();
        } else if (name == L"--replay") {
            options.replay = value();
        } else if (name == L"--register-tlb") {
            options.registerTypeLib = value();
        } else if (name == L"--unregister-tlb") {
            options.unregisterTypeLib = value();
        } else if (name.starts_with(L"-")) {
            UsageError(L"unknown option '" + arguments[i] + L"'");
        } else {
            UsageError(L"unexpected argument '" + name + L"'");
        }
    }

    if (options.help) {
        return options;
    }
    if (!options.registerTypeLib.empty() || !options.unregisterTypeLib.empty()) {
        if (!options.registerTypeLib.empty() && !options.unregisterTypeLib.empty()) {
            UsageError(L"--register-tlb and --unregister-tlb exclude each other");
        }
        return options;
    }
    if (dllGiven && progIdGiven) {
        UsageError(L"--dll and --progid exclude each other");
    }
    if (options.once && intervalGiven) {
        UsageError(L"--once and --interval exclude each other");
    }
    if ((dllGiven && options.dll.empty()) || (progIdGiven && options.progId.empty()) ||
        (!options.scenario.empty() && options.scenario.find_first_not_of(L' ') == std::wstring::npos) ||
        (!options.replay.empty() && options.replay.find_first_not_of(L' ') == std::wstring::npos)) {
        UsageError(L"an option was given an empty value");
    }
    if (options.version) {
        return options;
    }
    if (options.config.empty()) {
        UsageError(L"no configuration file: give --config FILE");
    }
    return options;
}

const wchar_t* HelpText()
{
    return LR"(zeph-host: runs an event-log metrics provider the way the monitoring agent does.

Usage:
  zeph-host --config FILE [--dll PATH | --progid PROGID] [--once | --interval SECONDS]
            [--json] [--log LEVELS] [--scenario FILE] [--replay FILE]
  zeph-host --register-tlb FILE | --unregister-tlb FILE
  zeph-host --version [--dll PATH | --progid PROGID]
  zeph-host --help

Options:
  -c, --config FILE      XML configuration: every <metric name="..."> child of the root element
                         is subscribed with that element as it stands (its <channel> and <query>).
  --dll PATH             load the provider from this DLL (no registration needed);
                         default: create it by ProgID.
  --progid PROGID        ProgID to create (default ZephAgent.EventLogProvider).
  --once                 query once, then stop (after the scenario, if one is given).
  --interval SECONDS     query every SECONDS (1 to 86400, default 10) until Ctrl+C.
  --json                 print values as JSON lines instead of a table.
  --log LEVELS           provider log levels to print on standard error: a comma-separated list
                         of error, warning, info; or all, none (default error,warning).
  --scenario FILE        replay a scenario against the simulated event log before querying
                         (needs the simulator's wevtapi.dll; see README.md).
  --replay FILE          replay Windows events exported as XML (Event Viewer, wevtutil qe /f:xml,
                         evtxexport -f xml) against the simulated event log, after the scenario.
  --register-tlb FILE    register a type library file (the agent's Agent.tlb) and exit.
  --unregister-tlb FILE  unregister it and exit.
  --version              print zeph-host's version and, when it can be loaded, the provider DLL's.
  -h, --help             this text.

Output:
  Values go to standard output: per query a header, then per metric its values (key, instance,
  value); VT_UI8 time stamps (ms since 1970) are also shown as UTC date and time. With --json,
  one object per value: {"query","metric","key","instance","type","value"[,"utc"]}, and one per
  metric query: {"query","metric","result","values","time"}.
  Log lines go to standard error: "hh:mm:ss.mmm [level] category: text".
  Ctrl+C, Ctrl+Break or closing the console stops the host: it unsubscribes every metric and
  releases the provider. Under Wine only Ctrl+C (SIGINT) does; SIGTERM, SIGHUP and SIGKILL end
  it at once.

Exit codes:
  0  finished, or stopped with Ctrl+C
  1  run failed: COM or MSXML unavailable, a query failed, a type library not (un)registered
  2  unknown option, missing or bad option value, options that exclude each other
  3  configuration file missing or unreadable
  4  configuration malformed: not well-formed XML, no <metric> element, a metric without a name
  5  provider DLL cannot be loaded, or is no COM server
  6  provider class not registered, or not offered by the DLL
  7  a metric subscription failed
  8  scenario or event file missing, unreadable or malformed
  9  scenario replay impossible (not the simulated event log) or a scenario step failed
)";
}

}  // namespace zeph::host
