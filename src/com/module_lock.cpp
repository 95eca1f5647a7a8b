#include "module_lock.h"

namespace zeph {

namespace {
LONG volatile g_lockCount = 0;
}

LONG LockModule() noexcept
{
    return ::InterlockedIncrement(&g_lockCount);
}

LONG UnlockModule() noexcept
{
    return ::InterlockedDecrement(&g_lockCount);
}

LONG ModuleLockCount() noexcept
{
    return ::InterlockedCompareExchange(&g_lockCount, 0, 0);
}

}  // namespace zeph
