// zeph-host: a console stand-in for the monitoring agent that loads
// zeph_eventlog.dll. See HelpText() in options.cpp for its command line.
#include "console.h"
#include "exit_codes.h"
#include "host_session.h"
#include "options.h"
#include "type_library.h"
#include "version_report.h"

#include <windows.h>

#include <new>
#include <string>
#include <vector>

namespace {

using zeph::host::ExitCode;

// Ctrl+C asks the run to stop; the run unsubscribes and releases the provider.
HANDLE g_stopEvent = nullptr;
// Set when the run has cleaned up, so a console close waits for that (bounded).
HANDLE g_finishedEvent = nullptr;
constexpr DWORD kCloseWaitMs = 4000;

BOOL WINAPI OnConsoleControl(DWORD type)
{
    ::SetEvent(g_stopEvent);
    if (type == CTRL_CLOSE_EVENT || type == CTRL_LOGOFF_EVENT || type == CTRL_SHUTDOWN_EVENT) {
        // The process ends when this returns.
        ::WaitForSingleObject(g_finishedEvent, kCloseWaitMs);
    }
    return TRUE;
}

int Fail(ExitCode code, const std::wstring& message)
{
    zeph::host::WriteErr(L"zeph-host: " + message + L"\n");
    return static_cast<int>(code);
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    const zeph::host::Utf8Console console;
    try {
        const zeph::host::Options options =
            zeph::host::ParseOptions(std::vector<std::wstring>(argv + (argc > 0 ? 1 : 0), argv + argc));
        if (options.help) {
            zeph::host::WriteOut(zeph::host::HelpText());
            return 0;
        }
        if (options.version) {
            zeph::host::PrintVersions(options);
            return 0;
        }
        if (!options.registerTypeLib.empty()) {
            zeph::host::WriteOut(zeph::host::RegisterTypeLibraryFile(options.registerTypeLib) + L"\n");
            return 0;
        }
        if (!options.unregisterTypeLib.empty()) {
            zeph::host::WriteOut(zeph::host::UnregisterTypeLibraryFile(options.unregisterTypeLib) + L"\n");
            return 0;
        }

        g_stopEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        g_finishedEvent = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
        if (g_stopEvent == nullptr || g_finishedEvent == nullptr) {
            return Fail(ExitCode::RunFailed, L"cannot create an event: " + zeph::host::SystemMessage(::GetLastError()));
        }
        ::SetConsoleCtrlHandler(OnConsoleControl, TRUE);
        ExitCode code = ExitCode::Ok;
        try {
            code = zeph::host::RunHost(options, g_stopEvent);
        } catch (...) {
            ::SetEvent(g_finishedEvent);
            throw;
        }
        ::SetEvent(g_finishedEvent);
        return static_cast<int>(code);
    } catch (const zeph::host::HostError& error) {
        return Fail(error.Code(), error.Message());
    } catch (const std::bad_alloc&) {
        return Fail(ExitCode::RunFailed, L"out of memory");
    } catch (const std::exception&) {
        return Fail(ExitCode::RunFailed, L"unexpected failure");
    }
}
