#include "type_library.h"

#include "console.h"
#include "exit_codes.h"
#include "win/com_strings.h"
#include "win/module_path.h"
#include "win/unique_resource.h"

#include <windows.h>
#include <oleauto.h>
#include <wrl/client.h>

namespace zeph::host {

namespace {

Microsoft::WRL::ComPtr<ITypeLib> Load(const std::wstring& path)
{
    // LoadTypeLibEx answers a missing file with a bare TYPE_E_CANTLOADLIBRARY.
    if (::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
        throw HostError(ExitCode::RunFailed, L"cannot load the type library '" + path + L"': file not found");
    }
    Microsoft::WRL::ComPtr<ITypeLib> library;
    const HRESULT result = ::LoadTypeLibEx(path.c_str(), REGKIND_NONE, &library);
    if (FAILED(result)) {
        throw HostError(ExitCode::RunFailed,
                        L"cannot load the type library '" + path + L"': " + DescribeError(static_cast<DWORD>(result)));
    }
    return library;
}

// "AgentLib 1.0 {46ED2946-...}": the library's name, version and identity.
std::wstring Identity(ITypeLib* library, const TLIBATTR& attributes)
{
    unique_bstr name;
    library->GetDocumentation(-1, name.put(), nullptr, nullptr, nullptr);
    return (name ? std::wstring(name.get(), ::SysStringLen(name.get())) + L" " : std::wstring()) +
           std::to_wstring(attributes.wMajorVerNum) + L"." + std::to_wstring(attributes.wMinorVerNum) + L" " +
           GuidString(attributes.guid);
}

}  // namespace

std::wstring RegisterTypeLibraryFile(const std::wstring& path)
{
    std::wstring full = FullPath(path);
    const auto library = Load(full);
    TLIBATTR* attributes = nullptr;
    HRESULT result = library->GetLibAttr(&attributes);
    std::wstring identity;
    if (SUCCEEDED(result)) {
        identity = Identity(library.Get(), *attributes);
        library->ReleaseTLibAttr(attributes);
        result = ::RegisterTypeLib(library.Get(), full.data(), nullptr);
    }
    if (FAILED(result)) {
        throw HostError(ExitCode::RunFailed, L"cannot register the type library '" + path + L"': " +
                                                 DescribeError(static_cast<DWORD>(result)));
    }
    return L"registered the type library " + identity + L" from '" + full + L"'";
}

std::wstring UnregisterTypeLibraryFile(const std::wstring& path)
{
    const auto library = Load(FullPath(path));
    TLIBATTR* attributes = nullptr;
    HRESULT result = library->GetLibAttr(&attributes);
    std::wstring identity;
    if (SUCCEEDED(result)) {
        identity = Identity(library.Get(), *attributes);
        result = ::UnRegisterTypeLib(attributes->guid, attributes->wMajorVerNum, attributes->wMinorVerNum,
                                     attributes->lcid, attributes->syskind);
        library->ReleaseTLibAttr(attributes);
    }
    if (FAILED(result)) {
        throw HostError(ExitCode::RunFailed, L"cannot unregister the type library '" + path + L"': " +
                                                 DescribeError(static_cast<DWORD>(result)));
    }
    return L"unregistered the type library " + identity;
}

}  // namespace zeph::host
