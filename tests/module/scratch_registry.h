// Keeps registry tests off the machine's keys: HKEY_CLASSES_ROOT and
// HKEY_CURRENT_USER of this process are redirected (RegOverridePredefKey) to
// fresh keys below the real HKEY_CURRENT_USER\Software\ZephTest\<name>. The
// destructor puts both back and deletes the scratch keys.
#pragma once

#include "unique_resource.h"

#include <windows.h>

#include <set>
#include <string>

namespace zeph::test {

class ScratchRegistry {
public:
    explicit ScratchRegistry(const std::wstring& name);
    ~ScratchRegistry();
    ScratchRegistry(const ScratchRegistry&) = delete;
    ScratchRegistry& operator=(const ScratchRegistry&) = delete;

    HKEY ClassesRoot() const { return classesRoot_.get(); }  // what HKEY_CLASSES_ROOT now is
    HKEY CurrentUser() const { return currentUser_.get(); }  // what HKEY_CURRENT_USER now is

private:
    std::wstring path_;
    unique_hkey classesRoot_;
    unique_hkey currentUser_;
};

// Every key and value below root\path, one line each, paths relative to
// root\path: "Key\\Sub" for a key, "Key\\Sub [name] = text" for a string value
// ("@" names the default value). Empty when root\path does not exist.
std::set<std::wstring> RegistryTree(HKEY root, const std::wstring& path = L"");

// The same, limited to the top-level keys named in keys.
std::set<std::wstring> RegistryTree(HKEY root, const std::wstring& path, const std::set<std::wstring>& keys);

// Creates root\path and sets a string value on it (name null: no value).
void WriteKey(HKEY root, const std::wstring& path, const wchar_t* name = nullptr, const std::wstring& value = L"",
              DWORD options = REG_OPTION_NON_VOLATILE);

}  // namespace zeph::test
