// Reads one string value from the registry, strictly: REG_SZ or REG_EXPAND_SZ
// only (the latter not expanded), of even byte length and ending in a zero.
#pragma once

#include <windows.h>

#include <string>

namespace zeph {

// S_OK with the text up to its first zero in out; the open or query error as
// an HRESULT; 0x8007000D (ERROR_INVALID_DATA) for another type, odd length or
// a missing terminator. out is untouched on failure. The key is always closed.
// Throws HResultError(E_OUTOFMEMORY) when the buffer cannot be allocated.
[[nodiscard]] HRESULT ReadRegistryString(HKEY root, const wchar_t* subkey, const wchar_t* valueName, std::wstring& out);

}  // namespace zeph
