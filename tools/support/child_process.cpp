#include "support/child_process.h"

#include "win/unique_resource.h"

namespace zeph {

ChildRun RunChild(std::wstring commandLine, DWORD timeoutMs, HANDLE out, HANDLE err)
{
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    const bool redirected = out != nullptr || err != nullptr;
    if (redirected) {
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
        startup.hStdOutput = out != nullptr ? out : ::GetStdHandle(STD_OUTPUT_HANDLE);
        startup.hStdError = err != nullptr ? err : ::GetStdHandle(STD_ERROR_HANDLE);
    }
    PROCESS_INFORMATION created = {};
    ChildRun run;
    if (!::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, redirected, 0, nullptr, nullptr, &startup,
                          &created)) {
        run.error = ::GetLastError();
        return run;
    }
    const unique_handle process(created.hProcess);
    const unique_handle thread(created.hThread);
    run.started = true;
    if (::WaitForSingleObject(process.get(), timeoutMs) != WAIT_OBJECT_0) {
        run.timedOut = true;
        ::TerminateProcess(process.get(), 255);
        ::WaitForSingleObject(process.get(), timeoutMs);
    }
    ::GetExitCodeProcess(process.get(), &run.exitCode);
    return run;
}

}  // namespace zeph
