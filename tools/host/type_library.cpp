#include "type_library.h"

#include "console.h"
#include "exit_codes.h"
#include "win/module_path.h"

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

}  // namespace

void RegisterTypeLibraryFile(const std::wstring& path)
{
    std::wstring full = FullPath(path);
    const auto library = Load(full);
    const HRESULT result = ::RegisterTypeLib(library.Get(), full.data(), nullptr);
    if (FAILED(result)) {
        throw HostError(ExitCode::RunFailed, L"cannot register the type library '" + path + L"': " +
                                                 DescribeError(static_cast<DWORD>(result)));
    }
}

void UnregisterTypeLibraryFile(const std::wstring& path)
{
    const auto library = Load(FullPath(path));
    TLIBATTR* attributes = nullptr;
    HRESULT result = library->GetLibAttr(&attributes);
    if (SUCCEEDED(result)) {
        result = ::UnRegisterTypeLib(attributes->guid, attributes->wMajorVerNum, attributes->wMinorVerNum,
                                     attributes->lcid, attributes->syskind);
        library->ReleaseTLibAttr(attributes);
    }
    if (FAILED(result)) {
        throw HostError(ExitCode::RunFailed, L"cannot unregister the type library '" + path + L"': " +
                                                 DescribeError(static_cast<DWORD>(result)));
    }
}

}  // namespace zeph::host
