// What a DLL's DllRegisterServer writes, found by running it in a Wine prefix
// of its own made for the purpose (the build makes a fresh one each time):
// - the classes root, in both registry views (the type library's interfaces are
//   written to the 32-bit view too), is read before and after the call, and what
//   the call added or changed is the registration;
// - HKEY_LOCAL_MACHINE and HKEY_CURRENT_USER are redirected to scratch keys for
//   the duration of the call, so anything written there shows up too.
//
// Errors: a failure to load the DLL, a failed registration, a registration that
// deletes something, or a registry failure throws HarvestError with a readable
// text. Threads: one harvest per process at a time (the redirection is
// process-wide).
#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace zeph::msi {

struct HarvestError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// One key, and at most one of its values: hasValue false is a key written with
// no values and no subkeys.
struct HarvestedRow {
    std::wstring root;    // "HKCR", "HKLM" or "HKCU"
    bool view32 = false;  // written to the 32-bit registry view
    std::wstring key;
    bool hasValue = false;
    std::wstring valueName;  // empty: the key's default value
    DWORD type = REG_NONE;
    std::vector<BYTE> data;
};

struct Harvest {
    std::wstring modulePath;         // the DLL's full path, as its registration saw it
    std::vector<HarvestedRow> rows;  // by root and view, keys in path order, values in name order
};

Harvest HarvestRegistration(const std::wstring& dllPath);

}  // namespace zeph::msi
