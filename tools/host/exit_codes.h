// The process exit codes of zeph-host with their meanings, and the one exception
// type that carries a code and a one-line message up to wmain. The codes and their
// meanings are a contract with scripts (and the fuzzer): add, never renumber.
#pragma once

#include <stdexcept>
#include <string>

namespace zeph::host {

enum class ExitCode : int {
    Ok = 0,
    RunFailed = 1,
    Usage = 2,
    ConfigMissing = 3,
    ConfigMalformed = 4,
    DllNotLoaded = 5,
    ClassNotRegistered = 6,
    SubscribeFailed = 7,
    ScenarioInvalid = 8,
    ScenarioFailed = 9,
};

// What each code means, in order; --help prints this table.
struct ExitCodeMeaning {
    ExitCode code;
    const wchar_t* meaning;
};
inline constexpr ExitCodeMeaning kExitCodeMeanings[] = {
    {ExitCode::Ok, L"finished, or stopped with Ctrl+C"},
    {ExitCode::RunFailed,
     L"run failed: COM or MSXML unavailable, a query failed, a type library not (un)registered or its file not "
     L"found"},
    {ExitCode::Usage, L"unknown option, missing or bad option value, options that exclude each other"},
    {ExitCode::ConfigMissing, L"configuration file missing or unreadable"},
    {ExitCode::ConfigMalformed,
     L"configuration malformed: not well-formed XML, no <metric> element, an element other than <metric>, a metric "
     L"without a name"},
    {ExitCode::DllNotLoaded, L"provider DLL cannot be loaded, or is no COM server"},
    {ExitCode::ClassNotRegistered, L"provider class not registered, or not offered by the DLL"},
    {ExitCode::SubscribeFailed, L"a metric subscription failed"},
    {ExitCode::ScenarioInvalid, L"scenario or event file missing, unreadable or malformed"},
    {ExitCode::ScenarioFailed, L"scenario replay impossible (not the simulated event log) or a scenario step failed"},
};

class HostError : public std::runtime_error {
public:
    HostError(ExitCode code, std::wstring message)
        : std::runtime_error("zeph-host error"), code_(code), message_(std::move(message))
    {
    }

    ExitCode Code() const noexcept { return code_; }
    const std::wstring& Message() const noexcept { return message_; }

private:
    ExitCode code_;
    std::wstring message_;
};

}  // namespace zeph::host
