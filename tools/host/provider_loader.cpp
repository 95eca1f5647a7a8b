#include "provider_loader.h"

#include "console.h"
#include "exit_codes.h"
#include "win/com_strings.h"
#include "win/module_path.h"
#include "win/unique_resource.h"

#include <zeph_eventlog_h.h>

namespace zeph::host {

namespace {

using DllGetClassObjectFunction = HRESULT(STDAPICALLTYPE*)(REFCLSID, REFIID, void**);
using DllCanUnloadNowFunction = HRESULT(STDAPICALLTYPE*)();

bool IsLoadFailure(HRESULT result)
{
    return result == HRESULT_FROM_WIN32(ERROR_MOD_NOT_FOUND) || result == HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND) ||
           result == HRESULT_FROM_WIN32(ERROR_PATH_NOT_FOUND) || result == HRESULT_FROM_WIN32(ERROR_BAD_EXE_FORMAT) ||
           result == HRESULT_FROM_WIN32(ERROR_DLL_INIT_FAILED) || result == HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND);
}

// regsvr32 /i:user /n writes the classes under HKEY_CURRENT_USER\Software\Classes. Windows
// merges them into HKEY_CLASSES_ROOT; Wine does not, so there such a registration is not found.
std::wstring PerUserNote(const std::wstring& progId)
{
    unique_hkey key;
    const std::wstring path = L"Software\\Classes\\" + progId;
    if (::RegOpenKeyExW(HKEY_CURRENT_USER, path.c_str(), 0, KEY_READ, key.put()) != ERROR_SUCCESS) {
        return L"";
    }
    return L"; it is registered for the current user only (regsvr32 /i:user /n), which Wine does not merge into "
           L"HKEY_CLASSES_ROOT: register it machine-wide";
}

}  // namespace

std::unique_ptr<ProviderInstance> ProviderInstance::CreateByProgId(const std::wstring& progId)
{
    CLSID clsid = {};
    HRESULT result = ::CLSIDFromProgID(progId.c_str(), &clsid);
    if (FAILED(result)) {
        throw HostError(
            ExitCode::ClassNotRegistered,
            L"the class '" + progId +
                L"' is not registered: register the provider (regsvr32 zeph_eventlog.dll) or give --dll PATH" +
                PerUserNote(progId));
    }
    std::unique_ptr<ProviderInstance> instance(new ProviderInstance());
    result = ::CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&instance->provider_));
    if (result == REGDB_E_CLASSNOTREG || result == CLASS_E_CLASSNOTAVAILABLE) {
        throw HostError(ExitCode::ClassNotRegistered,
                        L"the class '" + progId + L"' is not registered as an in-process server: " +
                            DescribeError(static_cast<DWORD>(result)) + PerUserNote(progId));
    }
    if (result == E_NOINTERFACE) {
        throw HostError(ExitCode::ClassNotRegistered,
                        L"the class '" + progId + L"' is no data provider (it lacks IDataProviderEx)");
    }
    if (IsLoadFailure(result)) {
        throw HostError(ExitCode::DllNotLoaded, L"the DLL registered for '" + progId + L"' cannot be loaded: " +
                                                    DescribeError(static_cast<DWORD>(result)));
    }
    if (FAILED(result)) {
        throw HostError(ExitCode::RunFailed,
                        L"cannot create '" + progId + L"': " + DescribeError(static_cast<DWORD>(result)));
    }
    return instance;
}

std::unique_ptr<ProviderInstance> ProviderInstance::CreateFromDll(const std::wstring& path)
{
    const std::wstring fullPath = FullPath(path);
    std::unique_ptr<ProviderInstance> instance(new ProviderInstance());
    // The DLL's own folder comes first when its imports (wevtapi.dll) are looked for.
    instance->module_.reset(::LoadLibraryExW(fullPath.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
    if (!instance->module_) {
        std::wstring reason = SystemMessage(::GetLastError());
        // Some texts name the file as an insert.
        if (const size_t insert = reason.find(L"%1"); insert != std::wstring::npos) {
            reason.replace(insert, 2, L"the file");
        }
        throw HostError(ExitCode::DllNotLoaded, L"cannot load the provider DLL '" + path + L"': " + reason);
    }
    const auto getClassObject = reinterpret_cast<DllGetClassObjectFunction>(
        reinterpret_cast<void*>(::GetProcAddress(instance->module_.get(), "DllGetClassObject")));
    if (getClassObject == nullptr) {
        throw HostError(ExitCode::DllNotLoaded,
                        L"'" + path + L"' is not a COM server: it does not export DllGetClassObject");
    }
    Microsoft::WRL::ComPtr<IClassFactory> factory;
    HRESULT result = getClassObject(CLSID_Provider, IID_PPV_ARGS(&factory));
    if (result == CLASS_E_CLASSNOTAVAILABLE || result == E_NOINTERFACE) {
        throw HostError(ExitCode::ClassNotRegistered,
                        L"'" + path + L"' does not offer the provider class " + GuidString(CLSID_Provider));
    }
    if (SUCCEEDED(result)) {
        result = factory->CreateInstance(nullptr, IID_PPV_ARGS(&instance->provider_));
    }
    if (result == E_NOINTERFACE) {
        throw HostError(ExitCode::ClassNotRegistered,
                        L"the class in '" + path + L"' is no data provider (it lacks IDataProviderEx)");
    }
    if (FAILED(result)) {
        throw HostError(ExitCode::RunFailed, L"cannot create the provider from '" + path + L"': " +
                                                 DescribeError(static_cast<DWORD>(result)));
    }
    return instance;
}

ProviderInstance::~ProviderInstance()
{
    Release();
}

void ProviderInstance::Release()
{
    provider_.Reset();
    if (!module_) {
        return;
    }
    const auto canUnloadNow = reinterpret_cast<DllCanUnloadNowFunction>(
        reinterpret_cast<void*>(::GetProcAddress(module_.get(), "DllCanUnloadNow")));
    // A DLL that still has live objects stays loaded until the process ends.
    if (canUnloadNow != nullptr && canUnloadNow() == S_OK) {
        module_.reset();
    } else {
        (void)module_.release();
    }
}

}  // namespace zeph::host
