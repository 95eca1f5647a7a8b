// Registration as data: a table of registry keys and string values, written
// below a root key that the caller chooses (the classes root, the per-user
// classes root, or a scratch key in tests), and removed again.
//
// Rows: a key path below the root (parts joined by '\'), how unregistration
// treats the key, and at most one REG_SZ value. Several rows may name the same
// key (one per value). Key paths and values may hold replacement variables
// written %NAME%; "%%" stands for a single '%'.
//
// Registering creates every key and writes every value. A ForceRemove key is
// first deleted with everything below it, so no stale entries survive.
// Unregistering works from the deepest key up: a NoRemove key stays as it is,
// a ForceRemove key goes with everything below it, and any other key loses the
// values the table writes and then goes too, unless something the table does
// not own (a subkey or another value) is still in it. Keys that are missing
// already are no failure.
//
// Errors: the first registry failure ends the run and comes back as an HRESULT;
// what was done before it stays done. A table that names an unknown
// replacement throws HResultError(E_INVALIDARG); allocation failures throw.
// Threads: any; the functions keep no state.
#pragma once

#include <windows.h>

#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zeph {

enum class RegistryRemoval {
    Normal,       // removed with the values the table writes, when nothing else is left in it
    NoRemove,     // a shared parent such as CLSID: never removed
    ForceRemove,  // owned whole: replaced on registration, removed whole on unregistration
};

struct RegistryRow {
    const wchar_t* key;
    RegistryRemoval removal = RegistryRemoval::Normal;
    const wchar_t* valueName = nullptr;  // null: no value; L"": the key's default value
    const wchar_t* value = nullptr;
};

using RegistryTable = std::span<const RegistryRow>;

// Variable name (without the '%' signs) and the text that replaces it.
using RegistryReplacements = std::vector<std::pair<std::wstring, std::wstring>>;

[[nodiscard]] HRESULT RegisterTable(HKEY root, RegistryTable table, const RegistryReplacements& replacements);
[[nodiscard]] HRESULT UnregisterTable(HKEY root, RegistryTable table, const RegistryReplacements& replacements);

// text with every %NAME% replaced.
std::wstring ExpandReplacements(std::wstring_view text, const RegistryReplacements& replacements);

}  // namespace zeph
