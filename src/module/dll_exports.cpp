// The five entry points of zeph_eventlog.dll (exported by name through
// zeph_eventlog.def). Each forwards to the one module object; none lets an
// exception out.
#include "module/event_log_provider_module.h"

#include <windows.h>

namespace {

zeph::CEventLogProviderModule g_module;

}  // namespace

extern "C" {

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
