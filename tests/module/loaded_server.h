// zeph_eventlog.dll loaded as a host loads it: LoadLibrary from the folder of
// the test executable, the exports found by name. The DLL is freed again on
// destruction, so every test starts with fresh module state (lock count,
// per-user switch, cached class factory).
#pragma once

#include <windows.h>

#include <string>

namespace zeph::test {

class LoadedServer {
public:
    LoadedServer();
    ~LoadedServer();
    LoadedServer(const LoadedServer&) = delete;
    LoadedServer& operator=(const LoadedServer&) = delete;

    // False when the DLL or one of its exports is missing (the test has failed then).
    bool Loaded() const { return module_ != nullptr && unregister_ != nullptr; }
    HMODULE Module() const { return module_; }
    // The DLL's full path as the loader reports it.
    const std::wstring& Path() const { return path_; }

    HRESULT CanUnloadNow() const { return canUnloadNow_(); }
    HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** object) const
    {
        return getClassObject_(clsid, riid, object);
    }
    HRESULT Install(BOOL install, const wchar_t* commandLine) const { return install_(install, commandLine); }
    HRESULT Register() const { return register_(); }
    HRESULT Unregister() const { return unregister_(); }

    // The folder that holds the test executable and the DLL, with a trailing '\'.
    static std::wstring BinFolder();

private:
    HMODULE module_ = nullptr;
    std::wstring path_;
    HRESULT(STDAPICALLTYPE* canUnloadNow_)() = nullptr;
    HRESULT(STDAPICALLTYPE* getClassObject_)(REFCLSID, REFIID, void**) = nullptr;
    HRESULT(STDAPICALLTYPE* install_)(BOOL, const wchar_t*) = nullptr;
    HRESULT(STDAPICALLTYPE* register_)() = nullptr;
    HRESULT(STDAPICALLTYPE* unregister_)() = nullptr;
};

// True when running under Wine rather than Windows.
bool RunningOnWine();

}  // namespace zeph::test
