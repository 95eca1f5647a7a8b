// zeph-host.exe (from bin/, beside the test) run as a child process with its
// output captured, every wait bounded.
#pragma once

#include "scratch.h"

#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace zeph::test {

inline std::vector<std::wstring> SplitLines(const std::wstring& text)
{
    std::vector<std::wstring> lines;
    for (size_t start = 0, end; start < text.size(); start = end + 1) {
        end = std::min(text.find(L'\n', start), text.size());
        lines.push_back(text.substr(start, end - start));
    }
    return lines;
}

struct HostRun {
    DWORD exitCode = 0;
    std::wstring out;  // standard output, LF line ends
    std::wstring err;  // standard error
    std::vector<std::wstring> OutLines() const { return SplitLines(out); }
    std::vector<std::wstring> ErrLines() const { return SplitLines(err); }
};

// The NetBIOS name that crash details end with.
inline std::wstring MachineName()
{
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 2] = {};
    DWORD size = MAX_COMPUTERNAME_LENGTH + 2;
    EXPECT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, name, &size));
    return name;
}

// A configuration with the crash metric on the Application channel.
constexpr char kCrashConfig[] = R"(<zeph-host>
  <metric name="eventlog|eventlog_appcrash">
    <channel>Application</channel>
    <query>*[System[Provider[@Name='Application Error']]]</query>
  </metric>
</zeph-host>
)";

namespace detail {

constexpr DWORD kHostRunTimeoutMs = 120000;

// A file, not a pipe, takes the child's output: Wine may start system processes
// from the child that keep its standard handles, so a pipe would never end.
inline HANDLE CaptureFile()
{
    wchar_t folder[MAX_PATH] = {}, path[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, folder);
    EXPECT_NE(::GetTempFileNameW(folder, L"zho", 0, path), 0u);
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    const HANDLE file =
        ::CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, &inherit,
                      CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    return file;
}

// Everything written to a capture file, as UTF-8; closes it.
inline std::wstring TakeText(HANDLE file)
{
    std::string bytes;
    ::SetFilePointerEx(file, LARGE_INTEGER{}, nullptr, FILE_BEGIN);
    char buffer[4096];
    DWORD read = 0;
    while (::ReadFile(file, buffer, sizeof(buffer), &read, nullptr) && read > 0) {
        bytes.append(buffer, read);
    }
    ::CloseHandle(file);
    std::wstring text(bytes.size(), L'\0');
    text.resize(::MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(),
                                      static_cast<int>(text.size())));
    return text;
}

}  // namespace detail

// Runs zeph-host.exe with the arguments; a run that takes more than two
// minutes fails the test and is ended.
inline HostRun RunZephHost(const std::vector<std::wstring>& arguments)
{
    // Every argument quoted: paths hold blanks, and none holds a quote or ends in a backslash.
    std::wstring commandLine = L"\"" + BinFolder() + L"zeph-host.exe\"";
    for (const std::wstring& argument : arguments) {
        commandLine += L" \"" + argument + L"\"";
    }
    const HANDLE out = detail::CaptureFile(), err = detail::CaptureFile();
    STARTUPINFOW startup = {};
    startup.cb = sizeof(startup);
    startup.dwFlags = STARTF_USESTDHANDLES;
    startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
    startup.hStdOutput = out;
    startup.hStdError = err;
    PROCESS_INFORMATION process = {};
    HostRun run;
    if (::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup, &process)) {
        if (::WaitForSingleObject(process.hProcess, detail::kHostRunTimeoutMs) != WAIT_OBJECT_0) {
            ADD_FAILURE() << "zeph-host did not finish in time";
            ::TerminateProcess(process.hProcess, 255);
            ::WaitForSingleObject(process.hProcess, detail::kHostRunTimeoutMs);
        }
        ::GetExitCodeProcess(process.hProcess, &run.exitCode);
        ::CloseHandle(process.hThread);
        ::CloseHandle(process.hProcess);
    } else {
        ADD_FAILURE() << "CreateProcess failed: " << ::GetLastError();
    }
    run.out = detail::TakeText(out);
    run.err = detail::TakeText(err);
    return run;
}

}  // namespace zeph::test
