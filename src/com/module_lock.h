// The DLL's lock count: every live COM object of the DLL holds one lock, and
// so does every outstanding IClassFactory::LockServer(TRUE). DllCanUnloadNow
// answers from it. Changed only by interlocked operations.
#pragma once

#include <windows.h>

namespace zeph {

void LockModule() noexcept;
void UnlockModule() noexcept;
LONG ModuleLockCount() noexcept;

}  // namespace zeph
