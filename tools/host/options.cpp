#include "options.h"

#include "exit_codes.h"
#include "support/text.h"

#include <algorithm>
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
        UsageError(option + L" takes a number of seconds from 1 to " + std::to_wstring(kMaxIntervalSeconds) +
                   L", not '" + text + L"'");
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

const std::vector<OptionSpec>& OptionTable()
{
    static const std::vector<OptionSpec> table = {
        {OptionId::Config, L"-c, --config", L"FILE",
         L"XML configuration: every <metric name=\"...\"> child of the root element is subscribed with that element "
         L"as it stands (its <channel> and <query>)."},
        {OptionId::Dll, L"--dll", L"PATH",
         L"load the provider from this DLL (no registration needed); default: create it by ProgID."},
        {OptionId::ProgId, L"--progid", L"PROGID",
         L"ProgID to create (default " + std::wstring(kDefaultProgId) + L")."},
        {OptionId::Once, L"--once", L"", L"query once, then stop (after the scenario, if one is given)."},
        {OptionId::Interval, L"--interval", L"SECONDS",
         L"query every SECONDS (1 to " + std::to_wstring(kMaxIntervalSeconds) + L", default " +
             std::to_wstring(kDefaultIntervalSeconds) + L") until Ctrl+C."},
        {OptionId::Json, L"--json", L"", L"print values as JSON lines instead of a table."},
        {OptionId::Log, L"--log", L"LEVELS",
         L"provider log levels to print on standard error: a comma-separated list of error, warning, info; or all, "
         L"none (default error,warning)."},
        {OptionId::Scenario, L"--scenario", L"FILE",
         L"replay a scenario against the simulated event log before querying (the simulator is built with the "
         L"sources; the release archive has none)."},
        {OptionId::Replay, L"--replay", L"FILE",
         L"replay Windows events exported as XML (Event Viewer, wevtutil qe /f:xml, evtxexport -f xml) against the "
         L"simulated event log, after the scenario."},
        {OptionId::RegisterTlb, L"--register-tlb", L"FILE",
         L"register a type library file (the agent's Agent.tlb) and exit."},
        {OptionId::UnregisterTlb, L"--unregister-tlb", L"FILE", L"unregister it and exit."},
        {OptionId::Version, L"--version", L"",
         L"print zeph-host's version and, when it can be loaded, the provider DLL's (from --dll, or the registered "
         L"ProgID) with its path."},
        {OptionId::Help, L"-h, -?, /?, --help", L"", L"this text."},
    };
    return table;
}

namespace {

const OptionSpec* FindOption(const std::wstring& name)
{
    for (const OptionSpec& row : OptionTable()) {
        for (size_t start = 0; start < row.spellings.size();) {
            const size_t end = std::min(row.spellings.find(L", ", start), row.spellings.size());
            if (row.spellings.compare(start, end - start, name) == 0) {
                return &row;
            }
            start = end + 2;
        }
    }
    return nullptr;
}

// The words of text, joined into lines of at most `width` characters after `indent`.
std::wstring Wrapped(const std::wstring& text, size_t indent, size_t width)
{
    std::wstring result;
    size_t line = 0;
    for (size_t start = 0; start < text.size();) {
        const size_t end = std::min(text.find(L' ', start), text.size());
        const size_t length = end - start;
        if (line > 0 && line + 1 + length > width) {
            result += L"\n" + std::wstring(indent, L' ');
            line = 0;
        }
        if (line > 0) {
            result += L' ';
            ++line;
        }
        result.append(text, start, length);
        line += length;
        start = end + 1;
    }
    return result;
}

}  // namespace

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
        const OptionSpec* row = FindOption(name);
        if (row == nullptr) {
            UsageError(name.starts_with(L"-") ? L"unknown option '" + arguments[i] + L"'"
                                              : L"unexpected argument '" + name + L"'");
        }
        std::wstring value;
        if (row->value.empty()) {
            if (inlineValue) {
                UsageError(L"option " + name + L" takes no value");
            }
        } else if (inlineValue) {
            value = *inlineValue;
        } else if (i + 1 < arguments.size()) {
            value = arguments[++i];
        } else {
            UsageError(L"option " + name + L" needs a value");
        }

        switch (row->id) {
        case OptionId::Help:
            options.help = true;
            break;
        case OptionId::Version:
            options.version = true;
            break;
        case OptionId::Config:
            options.config = value;
            break;
        case OptionId::Dll:
            options.dll = value;
            dllGiven = true;
            break;
        case OptionId::ProgId:
            options.progId = value;
            progIdGiven = true;
            break;
        case OptionId::Log:
            options.logLevels = ParseLogLevels(value);
            break;
        case OptionId::Interval:
            options.intervalSeconds = ParseSeconds(name, value);
            intervalGiven = true;
            break;
        case OptionId::Once:
            options.once = true;
            break;
        case OptionId::Json:
            options.json = true;
            break;
        case OptionId::Scenario:
            options.scenario = value;
            break;
        case OptionId::Replay:
            options.replay = value;
            break;
        case OptionId::RegisterTlb:
            options.registerTypeLib = value;
            break;
        case OptionId::UnregisterTlb:
            options.unregisterTypeLib = value;
            break;
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

std::wstring HelpText()
{
    constexpr size_t kWidth = 100;
    constexpr size_t kOptionColumn = 25;  // where the meanings begin
    std::wstring text =
        LR"(zeph-host: runs an event-log metrics provider the way the monitoring agent does.

Usage:
  zeph-host --config FILE [--dll PATH | --progid PROGID] [--once | --interval SECONDS]
            [--json] [--log LEVELS] [--scenario FILE] [--replay FILE]
  zeph-host --register-tlb FILE | --unregister-tlb FILE
  zeph-host --version [--dll PATH | --progid PROGID]
  zeph-host --help

Options:
)";
    for (const OptionSpec& row : OptionTable()) {
        std::wstring names = L"  " + row.spellings + (row.value.empty() ? L"" : L" " + row.value);
        names.resize(std::max(names.size() + 2, kOptionColumn), L' ');
        text += names + Wrapped(row.meaning, kOptionColumn, kWidth - kOptionColumn) + L"\n";
    }
    text +=
        LR"(
Output:
  Values go to standard output: per query a header, then per metric its values under the headings
  key, instance, value; VT_UI8 time stamps (ms since 1970) are also shown as UTC date and time, and
  a log-on's time stamps are followed by how long each of its phases took. With --json, one object
  per value: {"query","metric","key","instance","type","value"[,"utc"]}, and one per metric query:
  {"query","metric","result","values","time"[,"phases"]}.
  Log lines go to standard error: "hh:mm:ss.mmm [level] category: text".
  Ctrl+C, Ctrl+Break or closing the console stops the host: it unsubscribes every metric and
  releases the provider. Under Wine only Ctrl+C (SIGINT) does; SIGTERM, SIGHUP and SIGKILL end
  it at once.

Exit codes:
)";
    for (const ExitCodeMeaning& exit : kExitCodeMeanings) {
        text +=
            L"  " + std::to_wstring(static_cast<int>(exit.code)) + L"  " + Wrapped(exit.meaning, 5, kWidth - 5) + L"\n";
    }
    text +=
        LR"(
README.txt beside zeph-host.exe says how to register the provider and run it on Windows.
)";
    return text;
}

}  // namespace zeph::host
