// The scoped closer for event log handles: EvtClose once, null skipped.
#pragma once

#include "win/unique_resource.h"

#include <windows.h>
#include <winevt.h>

namespace zeph {

struct EvtHandleTraits {
    using type = EVT_HANDLE;
    static type invalid() noexcept { return nullptr; }
    static void close(type handle) noexcept { ::EvtClose(handle); }
};

using unique_evt_handle = unique_resource<EvtHandleTraits>;

}  // namespace zeph
