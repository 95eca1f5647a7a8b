#include "layering/registry_string.h"

#include "win/hresult.h"
#include "win/unique_resource.h"

namespace zeph {

namespace {

// A zeroed buffer from the process heap, freed when it goes out of scope.
class HeapBuffer {
public:
    explicit HeapBuffer(size_t bytes) : data_(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, bytes))
    {
        if (data_ == nullptr) {
            ThrowHResult(E_OUTOFMEMORY);
        }
    }
    ~HeapBuffer() { ::HeapFree(::GetProcessHeap(), 0, data_); }
    HeapBuffer(const HeapBuffer&) = delete;
    HeapBuffer& operator=(const HeapBuffer&) = delete;

    wchar_t* Text() const noexcept { return static_cast<wchar_t*>(data_); }

private:
    void* data_;
};

constexpr HRESULT kInvalidData = HResultFromWin32(ERROR_INVALID_DATA);

}  // namespace

HRESULT ReadRegistryString(HKEY root, const wchar_t* subkey, const wchar_t* valueName, std::wstring& out)
{
    unique_hkey key;
    LSTATUS status = ::RegOpenKeyExW(root, subkey, 0, KEY_READ, key.put());
    if (status != ERROR_SUCCESS) {
        return HResultFromWin32(status);
    }

    DWORD type = REG_NONE;
    DWORD size = 0;
    status = ::RegQueryValueExW(key.get(), valueName, nullptr, &type, nullptr, &size);
    if (status != ERROR_SUCCESS && status != ERROR_MORE_DATA) {
        return HResultFromWin32(status);
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ) {
        return kInvalidData;
    }

    // One unit more than the data, zeroed, so even a value that changed in
    // between leaves a terminated text.
    const DWORD capacityUnits = size / 2 + 1;
    const HeapBuffer buffer(capacityUnits * sizeof(wchar_t));
    DWORD dataSize = capacityUnits * sizeof(wchar_t);
    status =
        ::RegQueryValueExW(key.get(), valueName, nullptr, &type, reinterpret_cast<BYTE*>(buffer.Text()), &dataSize);
    if (status != ERROR_SUCCESS) {
        return HResultFromWin32(status);
    }
    if (type != REG_SZ && type != REG_EXPAND_SZ) {
        return kInvalidData;
    }
    if (dataSize % sizeof(wchar_t) != 0 || dataSize == 0 || buffer.Text()[dataSize / sizeof(wchar_t) - 1] != L'\0') {
        return kInvalidData;
    }
    out = buffer.Text();
    return S_OK;
}

}  // namespace zeph
