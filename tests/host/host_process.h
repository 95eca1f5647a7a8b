// zeph-host.exe (from bin/, beside the test) run as a child process with its
// output captured, every wait bounded; and a scratch folder for its files.
#pragma once

#include "win/module_path.h"

#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
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

inline std::wstring BinFolder()  // with a final backslash
{
    const std::wstring path = ModuleFilePath(nullptr);
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

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

// A fresh folder under %TEMP% (its name holds a blank), removed with its contents.
class TempFolder {
public:
    TempFolder()
    {
        GUID guid = {};
        ::CoCreateGuid(&guid);
        wchar_t text[40] = {};
        ::StringFromGUID2(guid, text, 40);
        path_ = (std::filesystem::temp_directory_path() / (std::wstring(L"zeph host ") + text)).wstring();
        EXPECT_TRUE(std::filesystem::create_directory(path_));
    }
    ~TempFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& Path() const { return path_; }  // no final backslash
    // Writes a file in the folder and returns its full path.
    std::wstring WriteFile(const std::wstring& name, const std::string& utf8Text) const
    {
        const std::wstring path = path_ + L"\\" + name;
        std::ofstream(std::filesystem::path(path), std::ios::binary) << utf8Text;
        return path;
    }

private:
    std::wstring path_;
};

}  // namespace zeph::test
