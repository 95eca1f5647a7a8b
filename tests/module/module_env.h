// The DLL as a host loads it, and registry work kept off the machine's keys.
#pragma once

#include "unique_resource.h"

#include <windows.h>

#include <set>
#include <string>

namespace zeph::test {

// zeph_eventlog.dll loaded from the test's own folder, exports found by name.
// Freed on destruction, so every test starts with fresh module state.
class LoadedServer {
public:
    LoadedServer();
    ~LoadedServer();
    LoadedServer(const LoadedServer&) = delete;
    LoadedServer& operator=(const LoadedServer&) = delete;

    bool Loaded() const { return loaded_; }
    HMODULE Module() const { return module_; }
    const std::wstring& Path() const { return path_; }

    HRESULT CanUnloadNow() const { return Export<HRESULT(STDAPICALLTYPE*)()>("DllCanUnloadNow")(); }
    HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** object) const
    {
        return Export<HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**)>("DllGetClassObject")(clsid, riid, object);
    }
    HRESULT Install(BOOL install, const wchar_t* commandLine) const
    {
        return Export<HRESULT(STDAPICALLTYPE*)(BOOL, const wchar_t*)>("DllInstall")(install, commandLine);
    }
    HRESULT Register() const { return Export<HRESULT(STDAPICALLTYPE*)()>("DllRegisterServer")(); }
    HRESULT Unregister() const { return Export<HRESULT(STDAPICALLTYPE*)()>("DllUnregisterServer")(); }

    static std::wstring BinFolder();  // with a trailing '\'

private:
    template <typename F>
    F Export(const char* name) const
    {
        return reinterpret_cast<F>(reinterpret_cast<void*>(::GetProcAddress(module_, name)));
    }

    HMODULE module_ = nullptr;
    bool loaded_ = false;
    std::wstring path_;
};

bool RunningOnWine();

// HKEY_CLASSES_ROOT and HKEY_CURRENT_USER of this process redirected to fresh
// scratch keys below the real HKEY_CURRENT_USER; put back and deleted after.
class ScratchRegistry {
public:
    explicit ScratchRegistry(const std::wstring& name);
    ~ScratchRegistry();
    ScratchRegistry(const ScratchRegistry&) = delete;
    ScratchRegistry& operator=(const ScratchRegistry&) = delete;

    HKEY ClassesRoot() const { return classesRoot_.get(); }
    HKEY CurrentUser() const { return currentUser_.get(); }

private:
    std::wstring path_;
    unique_hkey classesRoot_;
    unique_hkey currentUser_;
};

// Every key and value below root\path, one line each: "Key\\Sub" for a key,
// "Key\\Sub [name] = text" for a string value ("@": the default value).
// With keys given, only lines below those top-level keys.
std::set<std::wstring> RegistryTree(HKEY root, const std::wstring& path = L"",
                                    const std::set<std::wstring>& keys = {});

// Creates root\path and, when name is given, sets a string value on it.
void WriteKey(HKEY root, const std::wstring& path, const wchar_t* name = nullptr, const std::wstring& value = L"",
              DWORD options = REG_OPTION_NON_VOLATILE);

}  // namespace zeph::test
