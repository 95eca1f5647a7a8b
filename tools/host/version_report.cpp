#include "version_report.h"

#include "console.h"
#include "exit_codes.h"
#include "provider_loader.h"
#include "zeph_version.h"

#include <objbase.h>
#include <windows.h>

#include <vector>

namespace zeph::host {

namespace {

// The file of the module whose code the object's interface table lives in.
std::wstring ServingModule(IUnknown* object)
{
    HMODULE module = nullptr;
    const auto table = *reinterpret_cast<const wchar_t* const*>(object);
    if (!::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                              table, &module)) {
        return L"";
    }
    std::wstring path(MAX_PATH, L'\0');
    path.resize(::GetModuleFileNameW(module, path.data(), MAX_PATH));
    return path;
}

}  // namespace

std::wstring FileVersion(const std::wstring& path)
{
    DWORD ignored = 0;
    const DWORD size = ::GetFileVersionInfoSizeW(path.c_str(), &ignored);
    if (size == 0) {
        return L"";
    }
    std::vector<BYTE> block(size);
    VS_FIXEDFILEINFO* fixed = nullptr;
    UINT length = 0;
    if (!::GetFileVersionInfoW(path.c_str(), 0, size, block.data()) ||
        !::VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&fixed), &length) || fixed == nullptr) {
        return L"";
    }
    return std::to_wstring(HIWORD(fixed->dwFileVersionMS)) + L"." + std::to_wstring(LOWORD(fixed->dwFileVersionMS)) +
           L"." + std::to_wstring(HIWORD(fixed->dwFileVersionLS)) + L"." +
           std::to_wstring(LOWORD(fixed->dwFileVersionLS));
}

void PrintVersions(const Options& options)
{
    WriteOut(L"zeph-host " ZEPH_VERSION_WIDE L"\n");
    if (FAILED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED))) {
        return;
    }
    struct Apartment {
        ~Apartment() { ::CoUninitialize(); }
    } apartment;
    std::unique_ptr<ProviderInstance> provider;
    try {
        provider = options.dll.empty() ? ProviderInstance::CreateByProgId(options.progId)
                                       : ProviderInstance::CreateFromDll(options.dll);
    } catch (const HostError& error) {
        const bool named = !options.dll.empty() || options.progId != kDefaultProgId;
        if (named || error.Code() != ExitCode::ClassNotRegistered) {
            throw;
        }
        WriteOut(L"provider: none (" + options.progId + L" is not registered; give --dll PATH)\n");
        return;
    }
    const std::wstring path = ServingModule(provider->Get());
    const std::wstring version = FileVersion(path);
    const size_t slash = path.find_last_of(L"\\/");
    WriteOut(L"provider " + path.substr(slash == std::wstring::npos ? 0 : slash + 1) + L" " +
             (version.empty() ? L"(no version block)" : version) + L" (" + path + L")\n");
}

}  // namespace zeph::host
