// The DLL's lock count: every live COM object of the DLL holds one lock, and
// so does every outstanding IClassFactory::LockServer(TRUE). DllCanUnloadNow
// answers from it. Changed only by interlocked operations.
#pragma once

#include <windows.h>

namespace zeph {

void LockModule() noexcept;
void UnlockModule() noexcept;
LONG ModuleLockCount() noexcept;

// One module lock for as long as it lives. As the first base of an object it is
// built before everything else in the object and destroyed after it, so the DLL
// stays locked while the object's members are still being torn down (a metric
// closing its subscription, a host object being released).
class ModuleLockScope {
public:
    ModuleLockScope() noexcept { LockModule(); }
    ~ModuleLockScope() { UnlockModule(); }
    ModuleLockScope(const ModuleLockScope&) = delete;
    ModuleLockScope& operator=(const ModuleLockScope&) = delete;
};

}  // namespace zeph
