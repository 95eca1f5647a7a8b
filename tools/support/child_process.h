// A child process run to its end: started from a command line, its standard output
// and error going where the caller says, waited for at most a given time, after
// which it is ended (exit code 255).
// Threads: any; the call blocks until the child has ended.
#pragma once

#include <windows.h>

#include <string>

namespace zeph {

struct ChildRun {
    bool started = false;   // false: CreateProcess failed with error
    bool timedOut = false;  // the child was ended when the time ran out
    DWORD exitCode = 0;
    DWORD error = 0;
};

// out and err: null to share this process's own, or inheritable handles (the caller's).
ChildRun RunChild(std::wstring commandLine, DWORD timeoutMs, HANDLE out = nullptr, HANDLE err = nullptr);

}  // namespace zeph
