// CEventLogProviderModule: the DLL as a whole. It answers the five exports:
// class objects, whether the DLL may be unloaded, and registration per machine
// or per user.
//
// Lock count: shared with every live COM object of the DLL and with LockServer
// (com/module_lock.h); DllCanUnloadNow answers from it.
// Registration: the AppID and class tables (registration_tables.h) written
// below the classes root, HKEY_CLASSES_ROOT or, once Install was called with
// "user", HKEY_CURRENT_USER\Software\Classes for the rest of the process; then
// the type library inside the DLL file. Each registration call runs with the
// thread locale set to the system default and puts the caller's locale back on
// every way out.
// Errors: no exception leaves a public method. Threads: any; the lock count and
// the per-user switch change only atomically, registration runs on the caller's
// thread.
#pragma once

#include "com/registry_table.h"

#include <windows.h>

#include <atomic>

namespace zeph {

class CEventLogProviderModule {
public:
    CEventLogProviderModule() noexcept = default;
    CEventLogProviderModule(const CEventLogProviderModule&) = delete;
    CEventLogProviderModule& operator=(const CEventLogProviderModule&) = delete;

    // S_OK when nothing holds the module any more, else S_FALSE.
    [[nodiscard]] HRESULT CanUnloadNow() const noexcept;
    // The class factory of the provider class; CLASS_E_CLASSNOTAVAILABLE for another CLSID.
    [[nodiscard]] HRESULT GetClassObject(REFCLSID clsid, REFIID riid, void** object) noexcept;

    // Writes the AppID table, the class table and the type library; stops at
    // the first failure and leaves what was written.
    [[nodiscard]] HRESULT RegisterServer() noexcept;
    // Removes the class table and the type library, then the AppID table; stops
    // at the first failure.
    [[nodiscard]] HRESULT UnregisterServer() noexcept;
    // "user" in any letter case (and nothing after it) switches to per-user
    // registration for good. A failed install is undone by unregistering.
    [[nodiscard]] HRESULT Install(BOOL install, const wchar_t* commandLine) noexcept;

    [[nodiscard]] bool RegistersPerUser() const noexcept { return perUser_.load(); }

private:
    [[nodiscard]] HRESULT Register();
    [[nodiscard]] HRESULT Unregister();

    std::atomic<bool> perUser_{false};
};

}  // namespace zeph
