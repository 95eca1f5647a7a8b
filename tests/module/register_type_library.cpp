// Registers (or with /u unregisters) a type library file, as the host's
// installer does for its Agent.tlb. Exit code 0 on success.
#include <windows.h>
#include <oleauto.h>

#include <cstdio>
#include <cwchar>
#include <string>

int wmain(int argc, wchar_t** argv)
{
    const bool unregister = argc == 3 && _wcsicmp(argv[1], L"/u") == 0;
    if (argc != 2 && !unregister) {
        std::fwprintf(stderr, L"usage: register_type_library [/u] file.tlb\n");
        return 2;
    }
    std::wstring path(MAX_PATH, L'\0');
    path.resize(::GetFullPathNameW(argv[argc - 1], static_cast<DWORD>(path.size()), path.data(), nullptr));

    ITypeLib* library = nullptr;
    HRESULT result = ::LoadTypeLibEx(path.c_str(), REGKIND_NONE, &library);
    if (SUCCEEDED(result)) {
        if (unregister) {
            TLIBATTR* attributes = nullptr;
            result = library->GetLibAttr(&attributes);
            if (SUCCEEDED(result)) {
                result = ::UnRegisterTypeLib(attributes->guid, attributes->wMajorVerNum, attributes->wMinorVerNum,
                                             attributes->lcid, attributes->syskind);
                library->ReleaseTLibAttr(attributes);
            }
        } else {
            result = ::RegisterTypeLib(library, path.data(), nullptr);
        }
        library->Release();
    }
    if (FAILED(result)) {
        std::fwprintf(stderr, L"%ls %ls: 0x%08lx\n", unregister ? L"unregistering" : L"registering", path.c_str(),
                      static_cast<unsigned long>(result));
        return 1;
    }
    return 0;
}
