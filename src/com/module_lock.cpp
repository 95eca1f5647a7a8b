#include "com/module_lock.h"

namespace zeph {

namespace {
LONG volatile g_lockCount = 0;
}

void LockModule() noexcept
{
    ::InterlockedIncrement(&g_lockCount);
}

void UnlockModule() noexcept
{
    ::InterlockedDecrement(&g_lockCount);
}

LONG ModuleLockCount() noexcept
{
    return ::InterlockedCompareExchange(&g_lockCount, 0, 0);
}

}  // namespace zeph
