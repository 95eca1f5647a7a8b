// The DLL's lock count: every live COM object of the DLL holds one lock, and
// so does every outstanding IClassFactory::LockServer(TRUE). DllCanUnloadNow
// answers from it. Changed only by interlocked operations.
#pragma once

#include <windows.h>

namespace zeph {

LONG LockModule() noexcept;    // returns the new count
LONG UnlockModule() noexcept;  // returns the new count
LONG ModuleLockCount() noexcept;

}  // namespace zeph
