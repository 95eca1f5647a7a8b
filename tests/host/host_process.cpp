#include "host_process.h"

#include <gtest/gtest.h>

#include <objbase.h>


namespace zeph::test {

namespace {

std::wstring Quote(const std::wstring& argument)
{
    if (!argument.empty() && argument.find_first_of(L" \t\"") == std::wstring::npos) {
        return argument;
    }
    std::wstring quoted = L"\"";
    size_t backslashes = 0;
    for (wchar_t c : argument) {
        if (c == L'\\') {
            ++backslashes;
            continue;
        }
        quoted.append(c == L'"' ? backslashes * 2 + 1 : backslashes, L'\\');
        backslashes = 0;
        quoted += c;
    }
    quoted.append(backslashes * 2, L'\\');
    return quoted + L"\"";
}

std::wstring FromUtf8(const std::string& bytes)
{
    if (bytes.empty()) {
        return {};
    }
    const int size = ::MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), nullptr, 0);
    std::wstring text(static_cast<size_t>(size), L'\0');
    ::MultiByteToWideChar(CP_UTF8, 0, bytes.data(), static_cast<int>(bytes.size()), text.data(), size);
    return text;
}

std::vector<std::wstring> SplitLines(const std::wstring& text)
{
    std::vector<std::wstring> lines;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find(L'\n', start);
        if (end == std::wstring::npos) {
            end = text.size();
        }
        lines.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return lines;
}

// Captures one output stream of the child in a temporary file. A file, not a
// pipe: Wine may start its own system processes from the child, and they keep
// its standard handles open, so a pipe would not reach its end when the child does.
class CaptureFile {
public:
    CaptureFile()
    {
        wchar_t folder[MAX_PATH] = {};
        wchar_t path[MAX_PATH] = {};
        ::GetTempPathW(MAX_PATH, folder);
        EXPECT_NE(::GetTempFileNameW(folder, L"zho", 0, path), 0u);
        SECURITY_ATTRIBUTES inherit = {sizeof(inherit), nullptr, TRUE};
        file_ = ::CreateFileW(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                              &inherit, CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
        EXPECT_NE(file_, INVALID_HANDLE_VALUE);
    }
    ~CaptureFile() { ::CloseHandle(file_); }
    CaptureFile(const CaptureFile&) = delete;
    CaptureFile& operator=(const CaptureFile&) = delete;

    HANDLE Handle() const { return file_; }

    // Everything written so far (the child shares our file position).
    std::wstring Text() const
    {
        std::string bytes;
        LARGE_INTEGER start = {};
        ::SetFilePointerEx(file_, start, nullptr, FILE_BEGIN);
        char buffer[4096];
        DWORD read = 0;
        while (::ReadFile(file_, buffer, sizeof(buffer), &read, nullptr) && read > 0) {
            bytes.append(buffer, read);
        }
        return FromUtf8(bytes);
    }

private:
    HANDLE file_ = INVALID_HANDLE_VALUE;
};

class ChildProcess {
public:
    explicit ChildProcess(const std::vector<std::wstring>& arguments)
    {
        std::wstring commandLine = Quote(BinFolder() + L"zeph-host.exe");
        for (const std::wstring& argument : arguments) {
            commandLine += L" " + Quote(argument);
        }
        STARTUPINFOW startup = {};
        startup.cb = sizeof(startup);
        startup.dwFlags = STARTF_USESTDHANDLES;
        startup.hStdInput = ::GetStdHandle(STD_INPUT_HANDLE);
        startup.hStdOutput = out_.Handle();
        startup.hStdError = err_.Handle();
        started_ = ::CreateProcessW(nullptr, commandLine.data(), nullptr, nullptr, TRUE, 0, nullptr, nullptr, &startup,
                                    &process_);
        EXPECT_TRUE(started_) << "CreateProcess failed: " << ::GetLastError();
    }

    ~ChildProcess()
    {
        if (started_) {
            ::CloseHandle(process_.hThread);
            ::CloseHandle(process_.hProcess);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    HostRun Finish()
    {
        HostRun run;
        if (started_ && ::WaitForSingleObject(process_.hProcess, kHostRunTimeoutMs) != WAIT_OBJECT_0) {
            run.timedOut = true;
            ::TerminateProcess(process_.hProcess, 255);
            ::WaitForSingleObject(process_.hProcess, kHostRunTimeoutMs);
        }
        if (started_) {
            ::GetExitCodeProcess(process_.hProcess, &run.exitCode);
        }
        run.out = out_.Text();
        run.err = err_.Text();
        EXPECT_FALSE(run.timedOut) << "zeph-host did not finish in time; output:\n" << ::testing::PrintToString(run.out);
        return run;
    }

private:
    CaptureFile out_;
    CaptureFile err_;
    PROCESS_INFORMATION process_ = {};
    bool started_ = false;
};

}  // namespace

std::vector<std::wstring> HostRun::OutLines() const
{
    return SplitLines(out);
}

std::vector<std::wstring> HostRun::ErrLines() const
{
    return SplitLines(err);
}

std::wstring BinFolder()
{
    std::wstring path(MAX_PATH, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

HostRun RunZephHost(const std::vector<std::wstring>& arguments)
{
    ChildProcess child(arguments);
    return child.Finish();
}

namespace {

void RemoveTree(const std::wstring& path)
{
    WIN32_FIND_DATAW found = {};
    const HANDLE search = ::FindFirstFileW((path + L"\\*").c_str(), &found);
    if (search != INVALID_HANDLE_VALUE) {
        do {
            const std::wstring name = found.cFileName;
            if (name == L"." || name == L"..") {
                continue;
            }
            if (found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                RemoveTree(path + L"\\" + name);
            } else {
                ::DeleteFileW((path + L"\\" + name).c_str());
            }
        } while (::FindNextFileW(search, &found));
        ::FindClose(search);
    }
    ::RemoveDirectoryW(path.c_str());
}

}  // namespace

TempFolder::TempFolder()
{
    wchar_t temp[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, temp);
    GUID guid = {};
    ::CoCreateGuid(&guid);
    wchar_t text[40] = {};
    ::StringFromGUID2(guid, text, 40);
    path_ = std::wstring(temp) + L"zeph host " + text;
    EXPECT_TRUE(::CreateDirectoryW(path_.c_str(), nullptr));
}

TempFolder::~TempFolder()
{
    RemoveTree(path_);
}

std::wstring TempFolder::WriteFile(const std::wstring& name, const std::string& utf8Text) const
{
    const std::wstring path = path_ + L"\\" + name;
    const HANDLE file =
        ::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    EXPECT_NE(file, INVALID_HANDLE_VALUE);
    DWORD written = 0;
    ::WriteFile(file, utf8Text.data(), static_cast<DWORD>(utf8Text.size()), &written, nullptr);
    ::CloseHandle(file);
    return path;
}

}  // namespace zeph::test
