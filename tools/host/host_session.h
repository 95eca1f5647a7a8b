// One run of the host: create the provider, hand it the host's objects,
// subscribe the configured metrics, replay a scenario if asked, query once or
// on an interval, and on the way out (end, Ctrl+C or error) unsubscribe
// everything and release the provider before COM goes.
#pragma once

#include "exit_codes.h"
#include "options.h"

#include <windows.h>

namespace zeph::host {

// stopEvent: signalled when the user asks the host to stop (Ctrl+C).
// Throws HostError for the failures listed in exit_codes.h.
ExitCode RunHost(const Options& options, HANDLE stopEvent);

}  // namespace zeph::host
