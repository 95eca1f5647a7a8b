// Resource identifiers of zeph_eventlog.dll.
#pragma once

#define IDS_PROJNAME 100
