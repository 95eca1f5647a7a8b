#include "module_env.h"

#include <gtest/gtest.h>

#include <vector>

namespace zeph::test {

namespace {

constexpr wchar_t kDllName[] = L"zeph_eventlog.dll";

unique_hkey CreateKey(HKEY root, const std::wstring& path, DWORD options = REG_OPTION_NON_VOLATILE)
{
    unique_hkey key;
    EXPECT_EQ(::RegCreateKeyExW(root, path.c_str(), 0, nullptr, options, KEY_ALL_ACCESS, nullptr, key.put(), nullptr),
              ERROR_SUCCESS);
    return key;
}

void Collect(HKEY key, const std::wstring& prefix, std::set<std::wstring>& lines)
{
    std::vector<wchar_t> name(16384);
    std::vector<BYTE> data(65536);
    for (DWORD i = 0;; ++i) {
        DWORD nameLength = static_cast<DWORD>(name.size()), dataLength = static_cast<DWORD>(data.size()), type = 0;
        if (::RegEnumValueW(key, i, name.data(), &nameLength, nullptr, &type, data.data(), &dataLength) !=
            ERROR_SUCCESS) {
            break;
        }
        std::wstring line = prefix + L" [" + (nameLength == 0 ? L"@" : std::wstring(name.data(), nameLength)) + L"]";
        if (type == REG_SZ) {
            const std::wstring text(reinterpret_cast<const wchar_t*>(data.data()), dataLength / sizeof(wchar_t));
            line += L" = " + text.substr(0, text.find(L'\0'));
        } else {
            line += L" <type " + std::to_wstring(type) + L">";
        }
        lines.insert(line);
    }
    for (DWORD i = 0;; ++i) {
        DWORD nameLength = static_cast<DWORD>(name.size());
        if (::RegEnumKeyExW(key, i, name.data(), &nameLength, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) {
            break;
        }
        const std::wstring child(name.data(), nameLength);
        const std::wstring childPath = prefix.empty() ? child : prefix + L"\\" + child;
        lines.insert(childPath);
        unique_hkey sub;
        if (::RegOpenKeyExW(key, child.c_str(), 0, KEY_READ, sub.put()) == ERROR_SUCCESS) {
            Collect(sub.get(), childPath, lines);
        }
    }
}

}  // namespace

std::wstring LoadedServer::BinFolder()
{
    std::wstring path(MAX_PATH, L'\0');
    path.resize(::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size())));
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

LoadedServer::LoadedServer()
{
    EXPECT_EQ(::GetModuleHandleW(kDllName), nullptr) << "an earlier test left the DLL loaded";
    module_ = ::LoadLibraryW((BinFolder() + kDllName).c_str());
    EXPECT_NE(module_, nullptr) << "LoadLibrary failed: " << ::GetLastError();
    if (module_ != nullptr) {
        path_.resize(MAX_PATH);
        path_.resize(::GetModuleFileNameW(module_, path_.data(), static_cast<DWORD>(path_.size())));
        loaded_ = true;
        for (const char* name :
             {"DllCanUnloadNow", "DllGetClassObject", "DllInstall", "DllRegisterServer", "DllUnregisterServer"}) {
            const bool found = ::GetProcAddress(module_, name) != nullptr;
            EXPECT_TRUE(found) << name << " is not exported";
            loaded_ = loaded_ && found;
        }
    }
}

LoadedServer::~LoadedServer()
{
    if (module_ != nullptr) {
        ::FreeLibrary(module_);
        EXPECT_EQ(::GetModuleHandleW(kDllName), nullptr) << "something still holds the DLL";
    }
}

bool RunningOnWine()
{
    return ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
}

ScratchRegistry::ScratchRegistry(const std::wstring& name) : path_(L"Software\\ZephTest\\" + name)
{
    ::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str());  // leftovers of an aborted run
    classesRoot_ = CreateKey(HKEY_CURRENT_USER, path_ + L"\\ClassesRoot");
    currentUser_ = CreateKey(HKEY_CURRENT_USER, path_ + L"\\CurrentUser");
    EXPECT_EQ(::RegOverridePredefKey(HKEY_CLASSES_ROOT, classesRoot_.get()), ERROR_SUCCESS);
    EXPECT_EQ(::RegOverridePredefKey(HKEY_CURRENT_USER, currentUser_.get()), ERROR_SUCCESS);
}

ScratchRegistry::~ScratchRegistry()
{
    ::RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
    ::RegOverridePredefKey(HKEY_CLASSES_ROOT, nullptr);
    classesRoot_.reset();
    currentUser_.reset();
    EXPECT_EQ(::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str()), ERROR_SUCCESS);
    ::RegDeleteKeyW(HKEY_CURRENT_USER, path_.c_str());
}

std::set<std::wstring> RegistryTree(HKEY root, const std::wstring& path, const std::set<std::wstring>& keys)
{
    std::set<std::wstring> lines;
    unique_hkey key;
    if (::RegOpenKeyExW(root, path.empty() ? nullptr : path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS) {
        Collect(key.get(), L"", lines);
    }
    std::erase_if(lines, [&](const std::wstring& line) {
        return !keys.empty() && keys.count(line.substr(0, line.find_first_of(L"\\ "))) == 0;
    });
    return lines;
}

void WriteKey(HKEY root, const std::wstring& path, const wchar_t* name, const std::wstring& value, DWORD options)
{
    const unique_hkey key = CreateKey(root, path, options);
    if (key && name != nullptr) {
        EXPECT_EQ(::RegSetValueExW(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                   static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
    }
}

}  // namespace zeph::test
