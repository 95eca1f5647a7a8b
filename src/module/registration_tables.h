// What registering zeph_eventlog.dll writes below the classes root: the AppID
// entries and the provider class's ProgIDs and CLSID key. Both tables use the
// replacement variables %MODULE% (the DLL's full path) and %APPID%, %CLSID%
// and %LIBID%, the GUIDs of the IDL in registry form.
#pragma once

#include "com/registry_table.h"

namespace zeph {

inline constexpr wchar_t kModuleReplacement[] = L"MODULE";
inline constexpr wchar_t kAppIdReplacement[] = L"APPID";
inline constexpr wchar_t kClsidReplacement[] = L"CLSID";
inline constexpr wchar_t kLibIdReplacement[] = L"LIBID";

extern const RegistryTable kAppIdTable;
extern const RegistryTable kProviderClassTable;

}  // namespace zeph
