#include "win/module_path.h"

#include "win/hresult.h"

namespace zeph {

namespace {

[[noreturn]] void ThrowLastError()
{
    ThrowHResult(HResultFromWin32(static_cast<long>(::GetLastError())));
}

}  // namespace

std::wstring ModuleFilePath(HMODULE module)
{
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = ::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) {
            ThrowLastError();
        }
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);  // truncated: try a larger buffer
    }
}

std::wstring OwnModuleFilePath()
{
    HMODULE module = nullptr;
    if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              reinterpret_cast<LPCWSTR>(&OwnModuleFilePath), &module)) {
        ThrowLastError();
    }
    return ModuleFilePath(module);
}

std::wstring FullPath(const std::wstring& path)
{
    const DWORD size = ::GetFullPathNameW(path.c_str(), 0, nullptr, nullptr);
    if (size == 0) {
        return path;
    }
    std::wstring full(size, L'\0');
    const DWORD length = ::GetFullPathNameW(path.c_str(), size, full.data(), nullptr);
    full.resize(length < size ? length : 0);
    return full.empty() ? path : full;
}

}  // namespace zeph
