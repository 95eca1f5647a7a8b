#include "registration_tables.h"

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
    {L"ZephAgent.EventLogProvider.1\\CLSID", Normal, L"", L"{DAF69464-F4E2-40C0-BCC3-A30E819975F0}"},
    {L"ZephAgent.EventLogProvider", Normal, L"", L"Zeph Event Log Provider Class"},
    {L"ZephAgent.EventLogProvider\\CLSID", Normal, L"", L"{DAF69464-F4E2-40C0-BCC3-A30E819975F0}"},
    {L"ZephAgent.EventLogProvider\\CurVer", Normal, L"", L"ZephAgent.EventLogProvider.1"},
    {L"CLSID", NoRemove},
    {L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}", ForceRemove, L"", L"Zeph Event Log Provider Class"},
    {L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}\\ProgID", Normal, L"", L"ZephAgent.EventLogProvider.1"},
    {L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}\\VersionIndependentProgID", Normal, L"",
     L"ZephAgent.EventLogProvider"},
    {L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}\\Programmable", ForceRemove},
    {L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}\\InprocServer32", Normal, L"", L"%MODULE%"},
    {L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}\\InprocServer32", Normal, L"ThreadingModel", L"Both"},
    {L"CLSID\\{DAF69464-F4E2-40C0-BCC3-A30E819975F0}\\TypeLib", Normal, L"",
     L"{BA21C1A6-3183-4E99-A464-6DF4178B7249}"},
};

}  // namespace

constinit const RegistryTable kAppIdTable{kAppIdRows};
constinit const RegistryTable kProviderClassTable{kProviderClassRows};

}  // namespace zeph
