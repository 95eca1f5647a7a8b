// The five entry points of zeph_eventlog.dll (exported by name through
// zeph_eventlog.def), and DllMain. Each export forwards to the one module
// object; none lets an exception out.
#include "module/event_log_provider_module.h"
#include "module/runtime_tls_index.h"

#include <windows.h>

namespace {

zeph::CEventLogProviderModule g_module;

}  // namespace

extern "C" {

BOOL WINAPI DllMain(HINSTANCE, DWORD reason, LPVOID reserved)
{
    if (reason == DLL_PROCESS_ATTACH) {
        zeph::NoteRuntimeTlsIndex();
    } else if (reason == DLL_PROCESS_DETACH && reserved == nullptr) {
        zeph::FreeRuntimeTlsIndex();  // freed, not the process ending
    }
    return TRUE;
}

HRESULT STDAPICALLTYPE DllCanUnloadNow()
{
    return g_module.CanUnloadNow();
}

HRESULT STDAPICALLTYPE DllGetClassObject(REFCLSID clsid, REFIID riid, void** object)
{
    return g_module.GetClassObject(clsid, riid, object);
}

HRESULT STDAPICALLTYPE DllInstall(BOOL install, const wchar_t* commandLine)
{
    return g_module.Install(install, commandLine);
}

HRESULT STDAPICALLTYPE DllRegisterServer()
{
    return g_module.RegisterServer();
}

HRESULT STDAPICALLTYPE DllUnregisterServer()
{
    return g_module.UnregisterServer();
}

}  // extern "C"
