#include "loaded_server.h"

#include <gtest/gtest.h>

namespace zeph::test {

namespace {

constexpr wchar_t kDllName[] = L"zeph_eventlog.dll";

template <typename Function>
void Resolve(HMODULE module, const char* name, Function& function)
{
    function = reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
    EXPECT_NE(function, nullptr) << name << " is not exported";
}

}  // namespace

std::wstring LoadedServer::BinFolder()
{
    std::wstring path(MAX_PATH, L'\0');
    const DWORD length = ::GetModuleFileNameW(nullptr, path.data(), static_cast<DWORD>(path.size()));
    path.resize(length);
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

LoadedServer::LoadedServer()
{
    EXPECT_EQ(::GetModuleHandleW(kDllName), nullptr) << "an earlier test left the DLL loaded";
    module_ = ::LoadLibraryW((BinFolder() + kDllName).c_str());
    EXPECT_NE(module_, nullptr) << "LoadLibrary failed: " << ::GetLastError();
    if (module_ == nullptr) {
        return;
    }
    path_.resize(MAX_PATH);
    path_.resize(::GetModuleFileNameW(module_, path_.data(), static_cast<DWORD>(path_.size())));
    Resolve(module_, "DllCanUnloadNow", canUnloadNow_);
    Resolve(module_, "DllGetClassObject", getClassObject_);
    Resolve(module_, "DllInstall", install_);
    Resolve(module_, "DllRegisterServer", register_);
    Resolve(module_, "DllUnregisterServer", unregister_);
    if (canUnloadNow_ == nullptr || getClassObject_ == nullptr || install_ == nullptr || register_ == nullptr ||
        unregister_ == nullptr) {
        unregister_ = nullptr;  // Loaded() reports the failure
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

}  // namespace zeph::test
