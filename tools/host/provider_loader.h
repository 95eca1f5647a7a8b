// Creates the provider object: by ProgID through COM's registration, or
// straight from a DLL file through its DllGetClassObject (nothing registered).
//
// Ownership: the instance holds the one reference the host keeps and, for a DLL
// loaded by path, the module. Release (or destruction) drops the reference
// first and then frees the module if the DLL says it can be unloaded.
// Errors: construction throws HostError with ClassNotRegistered, DllNotLoaded or
// RunFailed and a one-line message.
#pragma once

#include "win/unique_resource.h"

#include <agent.h>
#include <wrl/client.h>

#include <memory>
#include <string>

namespace zeph::host {

class ProviderInstance {
public:
    static std::unique_ptr<ProviderInstance> CreateByProgId(const std::wstring& progId);
    static std::unique_ptr<ProviderInstance> CreateFromDll(const std::wstring& path);

    ~ProviderInstance();
    ProviderInstance(const ProviderInstance&) = delete;
    ProviderInstance& operator=(const ProviderInstance&) = delete;

    IDataProviderEx* Get() const { return provider_.Get(); }
    void Release();

private:
    ProviderInstance() = default;

    Microsoft::WRL::ComPtr<IDataProviderEx> provider_;
    unique_hmodule module_;
};

}  // namespace zeph::host
