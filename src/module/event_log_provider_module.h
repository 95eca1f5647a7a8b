// CEventLogProviderModule: the DLL as a whole. It answers the five exports:
// class objects, whether the DLL may be unloaded, and registration per machine
// or per user.
//
// Lock count: shared with every live COM object of the DLL and with LockServer
// (module_lock.h); DllCanUnloadNow answers from it.
// Registration: the AppID and class tables (registration_tables.h) written
// below the classes root, HKEY_CLASSES_ROOT or, once Install was called with
// "user", HKEY_CURRENT_USER\Software\Classes for the rest of the process; then
// the type library inside the DLL file. Each registration call runs with the
// thread locale set to the system default and puts the caller's locale back on
// every way out.
// Ownership: holds one reference to the global interface table once it was
// asked for, released when the module goes.
// Errors: no exception leaves a public method. Threads: any; the lock count and
// the table pointer change only atomically, registration runs on the caller's
// thread.
#pragma once

#include "registry_table.h"

#include <windows.h>
#include <objidl.h>

#include <atomic>
#include <string>

namespace zeph {

class CEventLogProviderModule {
public:
    CEventLogProviderModule() noexcept = default;
    ~CEventLogProviderModule();
    CEventLogProviderModule(const CEventLogProviderModule&) = delete;
    CEventLogProviderModule& operator=(const CEventLogProviderModule&) = delete;

    LONG Lock() noexcept;    // returns the new count
    LONG Unlock() noexcept;  // returns the new count
    LONG GetLockCount() const noexcept;

    // The process's standard global interface table, created on first use.
    // *table receives an added reference; E_POINTER for a null table.
    HRESULT GetGlobalInterfaceTable(IGlobalInterfaceTable** table) noexcept;

    // Adds the variables that every registration table may use besides MODULE.
    void AddCommonReplacements(RegistryReplacements& replacements) const;

    // S_OK when nothing holds the module any more, else S_FALSE.
    HRESULT CanUnloadNow() const noexcept;
    // The class factory of the provider class; CLASS_E_CLASSNOTAVAILABLE for another CLSID.
    HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** object) noexcept;

    // Writes the AppID table, the class table and the type library; stops at
    // the first failure and leaves what was written.
    HRESULT RegisterServer() noexcept;
    // Removes the class table and the type library, then the AppID table; stops
    // at the first failure.
    HRESULT UnregisterServer() noexcept;
    // "user" in any letter case (and nothing after it) switches to per-user
    // registration for good. A failed install is undone by unregistering.
    HRESULT Install(BOOL install, const wchar_t* commandLine) noexcept;

    bool RegistersPerUser() const noexcept { return perUser_.load(); }

private:
    HRESULT Register();
    HRESULT Unregister();
    RegistryReplacements Replacements(const std::wstring& modulePath) const;

    std::atomic<IGlobalInterfaceTable*> globalInterfaceTable_{nullptr};
    std::atomic<bool> perUser_{false};
};

// The full path of the module file (DLL or EXE) that holds this code; throws
// the Win32 failure as HResultError.
std::wstring ModuleFilePath();

}  // namespace zeph
