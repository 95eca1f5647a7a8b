// The DLL as a host loads it, and registry work kept off the machine's keys.
#pragma once

#include "scratch.h"
#include "win/unique_resource.h"

#include <windows.h>

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

namespace zeph::test {

// zeph_eventlog.dll loaded from the test's own folder, exports found by name.
// Freed on destruction, so every test starts with fresh module state.
class LoadedServer {
public:
    LoadedServer()
    {
        EXPECT_EQ(::GetModuleHandleW(kDllName), nullptr) << "an earlier test left the DLL loaded";
        module_.reset(::LoadLibraryW((BinFolder() + kDllName).c_str()));
        EXPECT_TRUE(module_) << "LoadLibrary failed: " << ::GetLastError();
        for (const char* name :
             {"DllCanUnloadNow", "DllGetClassObject", "DllInstall", "DllRegisterServer", "DllUnregisterServer"}) {
            const bool found = module_ && ::GetProcAddress(module_.get(), name) != nullptr;
            EXPECT_TRUE(found) << name << " is not exported";
            loaded_ = loaded_ && found;
        }
        path_ = module_ ? ModuleFilePath(module_.get()) : L"";
    }
    ~LoadedServer()
    {
        module_.reset();
        EXPECT_EQ(::GetModuleHandleW(kDllName), nullptr) << "something still holds the DLL";
    }

    bool Loaded() const { return loaded_; }
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

private:
    static constexpr wchar_t kDllName[] = L"zeph_eventlog.dll";

    template <typename F>
    F Export(const char* name) const
    {
        return reinterpret_cast<F>(reinterpret_cast<void*>(::GetProcAddress(module_.get(), name)));
    }

    unique_hmodule module_;
    bool loaded_ = true;
    std::wstring path_;
};

inline bool RunningOnWine()
{
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

inline unique_hkey CreateKey(HKEY root, const std::wstring& path, DWORD options = REG_OPTION_NON_VOLATILE)
{
    unique_hkey key;
    EXPECT_EQ(::RegCreateKeyExW(root, path.c_str(), 0, nullptr, options, KEY_ALL_ACCESS, nullptr, key.put(), nullptr),
              ERROR_SUCCESS);
    return key;
}

// HKEY_CLASSES_ROOT and HKEY_CURRENT_USER of this process redirected to scratch keys.
class ScratchRegistry {
public:
    HKEY ClassesRoot() const { return classesRoot_.Get(); }
    HKEY CurrentUser() const { return currentUser_.Get(); }

private:
    RedirectedKey classesRoot_{HKEY_CLASSES_ROOT};
    RedirectedKey currentUser_{HKEY_CURRENT_USER};
};

inline void CollectTree(HKEY key, const std::wstring& prefix, std::set<std::wstring>& lines)
{
    std::vector<wchar_t> name(16384);
    std::vector<BYTE> data(65536);
    DWORD nameLength = 0, dataLength = 0, type = 0;
    const auto resetLengths = [&] { nameLength = 16384, dataLength = 65536; };
    for (DWORD i = 0; resetLengths(), ::RegEnumValueW(key, i, name.data(), &nameLength, nullptr, &type, data.data(),
                                                      &dataLength) == ERROR_SUCCESS;
         ++i) {
        const std::wstring text(reinterpret_cast<const wchar_t*>(data.data()), dataLength / sizeof(wchar_t));
        const std::wstring shown =
            type == REG_SZ ? L" = " + text.substr(0, text.find(L'\0')) : L" <type " + std::to_wstring(type) + L">";
        lines.insert(prefix + L" [" + (nameLength == 0 ? L"@" : std::wstring(name.data(), nameLength)) + L"]" + shown);
    }
    for (DWORD i = 0; resetLengths(),
               ::RegEnumKeyExW(key, i, name.data(), &nameLength, nullptr, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
         ++i) {
        const std::wstring child(name.data(), nameLength), childPath = prefix.empty() ? child : prefix + L"\\" + child;
        lines.insert(childPath);
        unique_hkey sub;
        if (::RegOpenKeyExW(key, child.c_str(), 0, KEY_READ, sub.put()) == ERROR_SUCCESS) {
            CollectTree(sub.get(), childPath, lines);
        }
    }
}

// Every key and value below root\path, one line each: "Key\\Sub" for a key,
// "Key\\Sub [name] = text" for a string value ("@": the default value).
// With keys given, only lines below those top-level keys.
inline std::set<std::wstring> RegistryTree(HKEY root, const std::wstring& path = L"",
                                           const std::set<std::wstring>& keys = {})
{
    std::set<std::wstring> lines;
    unique_hkey key;
    if (::RegOpenKeyExW(root, path.empty() ? nullptr : path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS) {
        CollectTree(key.get(), L"", lines);
    }
    std::erase_if(lines, [&](const std::wstring& line) {
        return !keys.empty() && keys.count(line.substr(0, line.find_first_of(L"\\ "))) == 0;
    });
    return lines;
}

// Creates root\path and, when name is given, sets a string value on it.
inline void WriteKey(HKEY root, const std::wstring& path, const wchar_t* name = nullptr,
                     const std::wstring& value = L"", DWORD options = REG_OPTION_NON_VOLATILE)
{
    const unique_hkey key = CreateKey(root, path, options);
    if (key && name != nullptr) {
        EXPECT_EQ(::RegSetValueExW(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                   static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
    }
}

}  // namespace zeph::test
