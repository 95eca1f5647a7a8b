// Runs zeph-host.exe (from bin/, beside the test) as a child process with its
// standard output and error captured, every wait bounded.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace zeph::test {

// Upper bound of one host run; reaching it fails the test and ends the child.
constexpr DWORD kHostRunTimeoutMs = 120000;

struct HostRun {
    DWORD exitCode = 0;
    std::wstring out;  // standard output, LF line ends
    std::wstring err;  // standard error
    bool timedOut = false;

    std::vector<std::wstring> OutLines() const;
    std::vector<std::wstring> ErrLines() const;
};

// The folder of the test executable, with a final backslash.
std::wstring BinFolder();

// Runs zeph-host.exe with the arguments (each quoted as needed) and waits for it.
HostRun RunZephHost(const std::vector<std::wstring>& arguments);

// A fresh folder under %TEMP%, removed with its files when the object goes.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& Path() const { return path_; }  // no final backslash
    // Writes a file (UTF-8) in the folder and returns its full path.
    std::wstring WriteFile(const std::wstring& name, const std::string& utf8Text) const;

private:
    std::wstring path_;
};

}  // namespace zeph::test
