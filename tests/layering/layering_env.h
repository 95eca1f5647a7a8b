// A hermetic installation of the layering service: its executable path in a
// redirected HKEY_LOCAL_MACHINE, its Logs folder in a fresh temporary folder,
// its log files written as the service writes them (UTF-16LE, no byte-order mark).
#pragma once

#include "scratch.h"

#include <windows.h>

#include <string>

namespace zeph::test {

class ServiceInstall {
public:
    static constexpr wchar_t kServiceKey[] = L"SYSTEM\\CurrentControlSet\\services\\drovesvc";
    static constexpr wchar_t kParametersKey[] = L"SYSTEM\\CurrentControlSet\\services\\drovesvc\\Parameters";

    // withImagePath: registers the service's quoted executable path.
    explicit ServiceInstall(bool withImagePath = true);

    RedirectedKey& Registry() { return registry_; }
    const std::wstring& Folder() const { return folder_.Path(); }  // holds drovesvc.exe; no final backslash
    std::wstring LogsFolder() const { return folder_.Path() + L"\\Logs\\"; }

    void SetManager(const std::wstring& text) { registry_.SetString(kParametersKey, L"Manager1", text); }

    void WriteLog(const std::wstring& text) { WriteText(L"drovesvc.log", text, false); }
    void AppendLog(const std::wstring& text) { WriteText(L"drovesvc.log", text, true); }
    void AppendLogBytes(const void* data, DWORD bytes) { WriteBytes(L"drovesvc.log", data, bytes, true); }
    void WriteBackup(const std::wstring& text) { WriteText(L"drovesvc_bak.log", text, false); }
    void RotateLog();  // as the service does when its log is full
    void RemoveLog();
    void WriteBytes(const wchar_t* name, const void* data, DWORD bytes, bool append);

private:
    void WriteText(const wchar_t* name, const std::wstring& text, bool append)
    {
        WriteBytes(name, text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), append);
    }

    TempFolder folder_{L"zeph layering "};  // a blank, so the executable's path needs its quotes
    RedirectedKey registry_{HKEY_LOCAL_MACHINE};
};

}  // namespace zeph::test
