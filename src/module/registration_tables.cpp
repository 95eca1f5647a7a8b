#include "module/registration_tables.h"

namespace zeph {

namespace {

constexpr auto NoRemove = RegistryRemoval::NoRemove;
constexpr auto ForceRemove = RegistryRemoval::ForceRemove;
constexpr auto Normal = RegistryRemoval::Normal;

constexpr RegistryRow kAppIdRows[] = {
    {L"AppID", NoRemove},
    {L"AppID\\%APPID%", Normal, L"", L"zeph_eventlog"},
    {L"AppID\\zeph_eventlog.dll", Normal, L"AppID", L"%APPID%"},
};

// The CLSID key is the class's alone: replaced whole on registration and
// removed whole on unregistration. CLSID itself is shared by every class.
constexpr RegistryRow kProviderClassRows[] = {
    {L"ZephAgent.EventLogProvider.1", Normal, L"", L"Zeph Event Log Provider Class"},
    {L"ZephAgent.EventLogProvider.1\\CLSID", Normal, L"", L"%CLSID%"},
    {L"ZephAgent.EventLogProvider", Normal, L"", L"Zeph Event Log Provider Class"},
    {L"ZephAgent.EventLogProvider\\CLSID", Normal, L"", L"%CLSID%"},
    {L"ZephAgent.EventLogProvider\\CurVer", Normal, L"", L"ZephAgent.EventLogProvider.1"},
    {L"CLSID", NoRemove},
    {L"CLSID\\%CLSID%", ForceRemove, L"", L"Zeph Event Log Provider Class"},
    {L"CLSID\\%CLSID%\\ProgID", Normal, L"", L"ZephAgent.EventLogProvider.1"},
    {L"CLSID\\%CLSID%\\VersionIndependentProgID", Normal, L"", L"ZephAgent.EventLogProvider"},
    {L"CLSID\\%CLSID%\\Programmable", ForceRemove},
    {L"CLSID\\%CLSID%\\InprocServer32", Normal, L"", L"%MODULE%"},
    {L"CLSID\\%CLSID%\\InprocServer32", Normal, L"ThreadingModel", L"Both"},
    {L"CLSID\\%CLSID%\\TypeLib", Normal, L"", L"%LIBID%"},
};

}  // namespace

constinit const RegistryTable kAppIdTable{kAppIdRows};
constinit const RegistryTable kProviderClassTable{kProviderClassRows};

}  // namespace zeph
