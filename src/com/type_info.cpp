#include "type_info.h"

#include <string>

namespace zeph {

namespace {

// The full path of the module (DLL or EXE) that contains this code.
std::wstring OwnModulePath()
{
    HMODULE module = nullptr;
    if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              reinterpret_cast<LPCWSTR>(&OwnModulePath), &module)) {
        return {};
    }
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) {
            return {};
        }
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

}  // namespace

HRESULT LoadInterfaceTypeInfo(REFGUID libid, WORD major, WORD minor, REFIID iid, ITypeInfo** typeInfo)
{
    if (typeInfo == nullptr) {
        return E_POINTER;
    }
    *typeInfo = nullptr;
    Microsoft::WRL::ComPtr<ITypeLib> library;
    HRESULT result = ::LoadRegTypeLib(libid, major, minor, LOCALE_NEUTRAL, &library);
    if (FAILED(result)) {
        const std::wstring path = OwnModulePath();
        if (path.empty()) {
            return result;
        }
        result = ::LoadTypeLibEx(path.c_str(), REGKIND_NONE, &library);
        if (FAILED(result)) {
            return result;
        }
    }
    return library->GetTypeInfoOfGuid(iid, typeInfo);
}

}  // namespace zeph
