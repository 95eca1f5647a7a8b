// What registering zeph_eventlog.dll writes below the classes root: the AppID
// entries and the provider class's ProgIDs and CLSID key. Both tables use the
// replacement variables %APPID% and %MODULE% (the DLL's full path).
#pragma once

#include "registry_table.h"

namespace zeph {

inline constexpr wchar_t kAppIdReplacement[] = L"APPID";
inline constexpr wchar_t kModuleReplacement[] = L"MODULE";
inline constexpr wchar_t kAppId[] = L"{44D2B20B-C31C-43B7-A2E6-B5FA579BFDF2}";

extern const RegistryTable kAppIdTable;
extern const RegistryTable kProviderClassTable;

}  // namespace zeph
