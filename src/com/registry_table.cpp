#include "com/registry_table.h"

#include "win/hresult.h"
#include "win/unique_resource.h"

#include <algorithm>
#include <set>

namespace zeph {

namespace {

struct ExpandedRow {
    std::wstring key;
    RegistryRemoval removal;
    const wchar_t* valueName;
    std::wstring value;
};

std::vector<ExpandedRow> Expand(RegistryTable table, const RegistryReplacements& replacements)
{
    std::vector<ExpandedRow> rows;
    rows.reserve(table.size());
    for (const RegistryRow& row : table) {
        rows.push_back({ExpandReplacements(row.key, replacements), row.removal, row.valueName,
                        row.value != nullptr ? ExpandReplacements(row.value, replacements) : std::wstring()});
    }
    return rows;
}

size_t Depth(const std::wstring& key)
{
    return static_cast<size_t>(std::count(key.begin(), key.end(), L'\\'));
}

[[nodiscard]] bool Missing(LSTATUS status)
{
    return status == ERROR_FILE_NOT_FOUND || status == ERROR_PATH_NOT_FOUND;
}

// Deletes a key with everything below it; a missing key is no failure.
[[nodiscard]] LSTATUS DeleteTree(HKEY root, const std::wstring& path)
{
    LSTATUS status = ::RegDeleteTreeW(root, path.c_str());
    if (status == ERROR_SUCCESS || Missing(status)) {
        status = ::RegDeleteKeyW(root, path.c_str());  // in case only the contents went
    }
    return Missing(status) ? ERROR_SUCCESS : status;
}

[[nodiscard]] LSTATUS WriteRow(HKEY root, const ExpandedRow& row)
{
    unique_hkey key;
    LSTATUS status = ::RegCreateKeyExW(root, row.key.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_SET_VALUE,
                                       nullptr, key.put(), nullptr);
    if (status != ERROR_SUCCESS || row.valueName == nullptr) {
        return status;
    }
    const auto bytes = static_cast<DWORD>((row.value.size() + 1) * sizeof(wchar_t));
    return ::RegSetValueExW(key.get(), row.valueName, 0, REG_SZ, reinterpret_cast<const BYTE*>(row.value.c_str()),
                            bytes);
}

// Removes the listed values of a key, then the key itself if nothing is left in it.
[[nodiscard]] LSTATUS RemoveOwnedKey(HKEY root, const std::wstring& path, const std::vector<const wchar_t*>& valueNames)
{
    unique_hkey key;
    LSTATUS status = ::RegOpenKeyExW(root, path.c_str(), 0, KEY_QUERY_VALUE | KEY_SET_VALUE, key.put());
    if (Missing(status)) {
        return ERROR_SUCCESS;
    }
    if (status != ERROR_SUCCESS) {
        return status;
    }
    for (const wchar_t* name : valueNames) {
        status = ::RegDeleteValueW(key.get(), name);
        if (status != ERROR_SUCCESS && !Missing(status)) {
            return status;
        }
    }
    DWORD subkeys = 0;
    DWORD values = 0;
    status = ::RegQueryInfoKeyW(key.get(), nullptr, nullptr, nullptr, &subkeys, nullptr, nullptr, &values, nullptr,
                                nullptr, nullptr, nullptr);
    if (status != ERROR_SUCCESS) {
        return status;
    }
    key.reset();
    if (subkeys != 0 || values != 0) {
        return ERROR_SUCCESS;  // someone else keeps something here
    }
    status = ::RegDeleteKeyW(root, path.c_str());
    return Missing(status) ? ERROR_SUCCESS : status;
}

}  // namespace

std::wstring ExpandReplacements(std::wstring_view text, const RegistryReplacements& replacements)
{
    std::wstring expanded;
    expanded.reserve(text.size());
    size_t position = 0;
    while (position < text.size()) {
        const size_t open = text.find(L'%', position);
        if (open == std::wstring_view::npos) {
            expanded.append(text.substr(position));
            break;
        }
        expanded.append(text.substr(position, open - position));
        const size_t close = text.find(L'%', open + 1);
        if (close == std::wstring_view::npos) {
            ThrowHResult(E_INVALIDARG);
        }
        const std::wstring_view name = text.substr(open + 1, close - open - 1);
        if (name.empty()) {
            expanded.push_back(L'%');
        } else {
            const auto found = std::find_if(replacements.begin(), replacements.end(),
                                            [&](const auto& replacement) { return replacement.first == name; });
            if (found == replacements.end()) {
                ThrowHResult(E_INVALIDARG);
            }
            expanded.append(found->second);
        }
        position = close + 1;
    }
    return expanded;
}

HRESULT RegisterTable(HKEY root, RegistryTable table, const RegistryReplacements& replacements)
{
    const std::vector<ExpandedRow> rows = Expand(table, replacements);
    std::set<std::wstring> written;
    for (const ExpandedRow& row : rows) {
        // A key owned whole is cleared once, before its first row writes to it.
        if (row.removal == RegistryRemoval::ForceRemove && written.count(row.key) == 0) {
            const LSTATUS status = DeleteTree(root, row.key);
            if (status != ERROR_SUCCESS) {
                return HResultFromWin32(status);
            }
        }
        written.insert(row.key);
        const LSTATUS status = WriteRow(root, row);
        if (status != ERROR_SUCCESS) {
            return HResultFromWin32(status);
        }
    }
    return S_OK;
}

HRESULT UnregisterTable(HKEY root, RegistryTable table, const RegistryReplacements& replacements)
{
    struct Key {
        std::wstring path;
        RegistryRemoval removal = RegistryRemoval::Normal;
        std::vector<const wchar_t*> valueNames;
    };
    std::vector<Key> keys;
    for (const ExpandedRow& row : Expand(table, replacements)) {
        auto found = std::find_if(keys.begin(), keys.end(), [&](const Key& key) { return key.path == row.key; });
        if (found == keys.end()) {
            keys.push_back({row.key, RegistryRemoval::Normal, {}});
            found = keys.end() - 1;
        }
        if (row.removal != RegistryRemoval::Normal) {
            found->removal = row.removal;
        }
        if (row.valueName != nullptr) {
            found->valueNames.push_back(row.valueName);
        }
    }
    // Children before their parents, so a parent is empty when its turn comes.
    std::stable_sort(keys.begin(), keys.end(),
                     [](const Key& left, const Key& right) { return Depth(left.path) > Depth(right.path); });

    for (const Key& key : keys) {
        LSTATUS status = ERROR_SUCCESS;
        switch (key.removal) {
        case RegistryRemoval::NoRemove:
            break;
        case RegistryRemoval::ForceRemove:
            status = DeleteTree(root, key.path);
            break;
        case RegistryRemoval::Normal:
            status = RemoveOwnedKey(root, key.path, key.valueNames);
            break;
        }
        if (status != ERROR_SUCCESS) {
            return HResultFromWin32(status);
        }
    }
    return S_OK;
}

}  // namespace zeph
