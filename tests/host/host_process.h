// zeph-host.exe (from bin/, beside the test) run as a child process with its
// output captured, every wait bounded; and a scratch folder for its files.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace zeph::test {

struct HostRun {
    DWORD exitCode = 0;
    std::wstring out;  // standard output, LF line ends
    std::wstring err;  // standard error
    std::vector<std::wstring> OutLines() const;
    std::vector<std::wstring> ErrLines() const;
};

std::wstring BinFolder();  // with a final backslash

// Runs zeph-host.exe with the arguments; a run that takes more than two
// minutes fails the test and is ended.
HostRun RunZephHost(const std::vector<std::wstring>& arguments);

// A fresh folder under %TEMP% (its name holds a blank), removed with its contents.
class TempFolder {
public:
    TempFolder();
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& Path() const { return path_; }  // no final backslash
    // Writes a file in the folder and returns its full path.
    std::wstring WriteFile(const std::wstring& name, const std::string& utf8Text) const;

private:
    std::wstring path_;
};

}  // namespace zeph::test
