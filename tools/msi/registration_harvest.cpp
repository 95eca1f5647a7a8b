#include "registration_harvest.h"

#include "support/registry_redirection.h"
#include "support/text.h"
#include "win/unique_resource.h"

#include <cstdio>
#include <map>
#include <utility>

namespace zeph::msi {

namespace {

constexpr wchar_t kScratchOwner[] = L"zeph-registration-harvest";
constexpr wchar_t kView32[] = L"Wow6432Node";  // the classes root's 32-bit view, as a subkey

struct RedirectedRoot {
    HKEY predefined;
    const wchar_t* name;
};

const RedirectedRoot kRedirectedRoots[] = {
    {HKEY_LOCAL_MACHINE, L"HKLM"},
    {HKEY_CURRENT_USER, L"HKCU"},
};

std::string Narrow(const std::wstring& text)
{
    std::string result;
    for (wchar_t c : text) {
        result += c < 0x80 ? static_cast<char>(c) : '?';
    }
    return result;
}

[[noreturn]] void Fail(const std::string& what, long code)
{
    char number[16];
    std::snprintf(number, sizeof number, "0x%08lx", static_cast<unsigned long>(code));
    throw HarvestError(what + " (" + number + ")");
}

void Check(LSTATUS status, const std::string& what)
{
    if (status != ERROR_SUCCESS) {
        Fail(what, status);
    }
}

HarvestedRow RowKind(const wchar_t* root, bool view32)
{
    HarvestedRow row;
    row.root = root;
    row.view32 = view32;
    return row;
}

// Every key and value of a tree, by root, view, path and value name, the last two
// without regard to case (as the registry compares them); a key's own entry comes before its values.
using Snapshot = std::map<std::wstring, HarvestedRow>;

std::wstring EntryId(const HarvestedRow& row)
{
    return row.root + (row.view32 ? L"32\n" : L"\n") + AsciiLower(row.key) +
           (row.hasValue ? L"\n1" + AsciiLower(row.valueName) : L"\n0");
}

// Keys that stand for another (the view's shared keys) are links; they are read
// where they point to.
bool IsLink(HKEY parent, const std::wstring& name)
{
    unique_hkey key;
    if (::RegOpenKeyExW(parent, name.c_str(), REG_OPTION_OPEN_LINK, KEY_QUERY_VALUE, key.put()) != ERROR_SUCCESS) {
        return false;
    }
    DWORD type = REG_NONE;
    return ::RegQueryValueExW(key.get(), L"SymbolicLinkValue", nullptr, &type, nullptr, nullptr) == ERROR_SUCCESS &&
           type == REG_LINK;
}

void ReadTree(HKEY key, const std::wstring& path, const HarvestedRow& kind, const std::wstring& skipped,
              Snapshot& snapshot)
{
    DWORD subkeys = 0;
    DWORD values = 0;
    DWORD longestSubkey = 0;
    DWORD longestValueName = 0;
    DWORD longestData = 0;
    Check(::RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &subkeys, &longestSubkey, nullptr, &values,
                             &longestValueName, &longestData, nullptr, nullptr),
          "cannot read the key " + Narrow(path));
    if (!path.empty()) {
        HarvestedRow row = kind;
        row.key = path;
        row.type = values == 0 && subkeys == 0 ? REG_NONE : REG_SZ;  // REG_NONE: an empty key
        snapshot.emplace(EntryId(row), std::move(row));
    }
    for (DWORD i = 0; i < values; ++i) {
        HarvestedRow row = kind;
        row.key = path;
        row.hasValue = true;
        row.valueName.assign(longestValueName + 1, L'\0');
        row.data.resize(longestData + sizeof(wchar_t));
        DWORD length = static_cast<DWORD>(row.valueName.size());
        DWORD size = static_cast<DWORD>(row.data.size());
        Check(::RegEnumValueW(key, i, row.valueName.data(), &length, nullptr, &row.type, row.data.data(), &size),
              "cannot read the values of " + Narrow(path));
        row.valueName.resize(length);
        row.data.resize(size);
        snapshot.emplace(EntryId(row), std::move(row));
    }
    for (DWORD i = 0; i < subkeys; ++i) {
        std::wstring name(longestSubkey + 1, L'\0');
        DWORD length = static_cast<DWORD>(name.size());
        Check(::RegEnumKeyExW(key, i, name.data(), &length, nullptr, nullptr, nullptr, nullptr),
              "cannot list the subkeys of " + Narrow(path));
        name.resize(length);
        if (AsciiLower(name) == AsciiLower(skipped) || IsLink(key, name)) {
            continue;
        }
        unique_hkey subkey;
        Check(::RegOpenKeyExW(key, name.c_str(), 0, KEY_READ, subkey.put()), "cannot open " + Narrow(name));
        ReadTree(subkey.get(), path.empty() ? name : path + L"\\" + name, kind, {}, snapshot);
    }
}

// The classes root in both views; the 64-bit view without the 32-bit one inside it.
Snapshot ReadClassesRoot()
{
    Snapshot snapshot;
    ReadTree(HKEY_CLASSES_ROOT, L"", RowKind(L"HKCR", false), kView32, snapshot);
    unique_hkey view32;
    if (::RegOpenKeyExW(HKEY_CLASSES_ROOT, kView32, 0, KEY_READ, view32.put()) == ERROR_SUCCESS) {
        ReadTree(view32.get(), L"", RowKind(L"HKCR", true), {}, snapshot);
    }
    return snapshot;
}

// Entries of after that before lacks or holds otherwise. Keys count only when
// they are new and empty: the others come with their values or subkeys.
void AddChanges(const Snapshot& before, const Snapshot& after, std::vector<HarvestedRow>& rows)
{
    for (const auto& [id, row] : before) {
        if (!after.contains(id)) {
            throw HarvestError("the registration removed " + Narrow(row.key) + " " + Narrow(row.valueName));
        }
    }
    for (const auto& [id, row] : after) {
        const auto old = before.find(id);
        if (!row.hasValue ? row.type == REG_NONE && old == before.end()
                          : old == before.end() || old->second.type != row.type || old->second.data != row.data) {
            rows.push_back(row);
        }
    }
}

std::wstring ModulePath(HMODULE module)
{
    std::wstring path(32768, L'\0');
    path.resize(::GetModuleFileNameW(module, path.data(), static_cast<DWORD>(path.size())));
    return path;
}

}  // namespace

Harvest HarvestRegistration(const std::wstring& dllPath)
{
    const unique_hmodule module(::LoadLibraryExW(dllPath.c_str(), nullptr, LOAD_WITH_ALTERED_SEARCH_PATH));
    if (!module) {
        Fail("cannot load " + Narrow(dllPath), static_cast<long>(::GetLastError()));
    }
    using RegisterServer = HRESULT(STDAPICALLTYPE*)();
    const auto registerServer = reinterpret_cast<RegisterServer>(::GetProcAddress(module.get(), "DllRegisterServer"));
    if (registerServer == nullptr) {
        Fail(Narrow(dllPath) + " exports no DllRegisterServer", static_cast<long>(::GetLastError()));
    }

    const ScratchKey scratchRoots[] = {ScratchKey(kScratchOwner), ScratchKey(kScratchOwner)};
    static_assert(std::size(scratchRoots) == std::size(kRedirectedRoots));

    Harvest harvest{ModulePath(module.get()), {}};
    const Snapshot before = ReadClassesRoot();
    HRESULT registered = E_UNEXPECTED;
    {
        // HKLM and HKCU point at the scratch keys while the call runs, whatever way it leaves.
        const KeyRedirection machine(kRedirectedRoots[0].predefined, scratchRoots[0].Get());
        const KeyRedirection user(kRedirectedRoots[1].predefined, scratchRoots[1].Get());
        registered = registerServer();
    }
    if (SUCCEEDED(registered)) {
        AddChanges(before, ReadClassesRoot(), harvest.rows);
        for (size_t i = 0; i < std::size(kRedirectedRoots); ++i) {
            Snapshot written;
            ReadTree(scratchRoots[i].Get(), L"", RowKind(kRedirectedRoots[i].name, false), {}, written);
            AddChanges({}, written, harvest.rows);
        }
    }
    if (FAILED(registered)) {
        Fail("DllRegisterServer failed", registered);
    }
    return harvest;
}

}  // namespace zeph::msi
