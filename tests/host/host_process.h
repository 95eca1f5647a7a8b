// zeph-host.exe (from bin/, beside the test) run as a child process with its
// output captured, every wait bounded.
#pragma once

#include "machine_name.h"
#include "scratch.h"
#include "support/child_process.h"
#include "support/text.h"

#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
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

// A configuration with the crash metric on the Application channel.
constexpr char kCrashConfig[] = R"(<zeph-host>
  <metric name="eventlog|eventlog_appcrash">
    <channel>Application</channel>
    <query>*[System[Provider[@Name='Application Error']]]</query>
  </metric>
</zeph-host>
)";

// Everything in a file, read as UTF-8.
inline std::wstring ReadUtf8File(const std::wstring& path)
{
    std::ifstream file(std::filesystem::path(path), std::ios::binary);
    return FromUtf8(std::string((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>()));
}

// Runs zeph-host.exe with the arguments; a run that takes more than two minutes
// fails the test and is ended. Files, not pipes, take its output: Wine may start
// system processes from the child that keep its standard handles, so a pipe would
// never end.
inline HostRun RunZephHost(const std::vector<std::wstring>& arguments)
{
    constexpr DWORD kTimeoutMs = 120000;
    // Every argument quoted: paths hold blanks, and none holds a quote or ends in a backslash.
    std::wstring commandLine = L"\"" + BinFolder() + L"zeph-host.exe\"";
    for (const std::wstring& argument : arguments) {
        commandLine += L" \"" + argument + L"\"";
    }
    const TempFolder folder;
    const std::wstring outPath = folder.Path() + L"\\out.txt", errPath = folder.Path() + L"\\err.txt";
    SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
    const auto capture = [&](const std::wstring& path) {
        return unique_file(::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, &inherit,
                                         CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    };
    unique_file out = capture(outPath), err = capture(errPath);
    EXPECT_TRUE(out && err);
    const ChildRun child = RunChild(commandLine, kTimeoutMs, out.get(), err.get());
    EXPECT_TRUE(child.started) << "CreateProcess failed: " << child.error;
    EXPECT_FALSE(child.timedOut) << "zeph-host did not finish in time";
    HostRun run;
    run.exitCode = child.exitCode;
    out.reset();
    err.reset();
    run.out = ReadUtf8File(outPath);
    run.err = ReadUtf8File(errPath);
    return run;
}

}  // namespace zeph::test
