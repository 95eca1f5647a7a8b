#include "module/runtime_tls_index.h"

#include <windows.h>

#if defined(__MINGW32__)
#include <pthread.h>
#define ZEPH_WINPTHREADS 1
#endif

namespace zeph {

namespace {

DWORD g_runtimeIndex = TLS_OUT_OF_INDEXES;

}  // namespace

void NoteRuntimeTlsIndex() noexcept
{
#if ZEPH_WINPTHREADS
    // The runtime takes the lowest free index, which a probe finds first.
    const DWORD probe = ::TlsAlloc();
    if (probe == TLS_OUT_OF_INDEXES) {
        return;
    }
    ::TlsFree(probe);
    (void)pthread_self();  // the runtime takes its index now and keeps this thread's data in it
    // Only the runtime has stored anything in it on this thread: another
    // thread that took the index first would have left it empty here.
    if (::TlsGetValue(probe) != nullptr) {
        g_runtimeIndex = probe;
    }
#endif
}

void FreeRuntimeTlsIndex() noexcept
{
    if (g_runtimeIndex != TLS_OUT_OF_INDEXES) {
        ::TlsFree(g_runtimeIndex);
        g_runtimeIndex = TLS_OUT_OF_INDEXES;
    }
}

}  // namespace zeph
