// The process exit codes of zeph-host, and the one exception type that carries
// a code and a one-line message up to wmain. `--help` lists the same table.
#pragma once

#include <stdexcept>
#include <string>

namespace zeph::host {

enum class ExitCode : int {
    Ok = 0,                  // finished, or stopped with Ctrl+C
    RunFailed = 1,           // COM or MSXML unavailable, a query failed, a type library not (un)registered
    Usage = 2,               // unknown option, missing or bad option value, options that exclude each other
    ConfigMissing = 3,       // the configuration file cannot be read
    ConfigMalformed = 4,     // not well-formed XML, no <metric>, a metric without a name
    DllNotLoaded = 5,        // the provider DLL cannot be loaded or is no COM server
    ClassNotRegistered = 6,  // the ProgID or class is not registered, or the DLL lacks the class
    SubscribeFailed = 7,     // SubscribeMetric failed for a metric
    ScenarioInvalid = 8,     // the scenario or an event file cannot be read or is malformed
    ScenarioFailed = 9,      // no simulated event log, or a scenario step failed
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
