// The thread-local storage index of the MinGW threading runtime (winpthreads)
// linked into the DLL. The runtime takes one index the first time a thread
// needs its data (a guarded static, a thrown exception) and never gives it
// back; a host that loads and frees the DLL again and again (as COM does with
// unused libraries) would lose one of the process's 1088 indices per load,
// and the runtime aborts the process when none is left. The DLL makes the
// runtime take its index while it is loaded, notes which one it is, and frees
// it when it is unloaded.
//
// Both calls come from DllMain, under the loader lock, on the loading and the
// unloading thread. Elsewhere (other compilers, other runtimes) they do nothing.
#pragma once

namespace zeph {

// At DLL_PROCESS_ATTACH, before anything else of the DLL runs.
void NoteRuntimeTlsIndex() noexcept;

// At DLL_PROCESS_DETACH when the DLL is freed (not when the process ends):
// nothing of the DLL runs on any thread afterwards but its static destructors,
// which do not use the runtime's thread data.
void FreeRuntimeTlsIndex() noexcept;

}  // namespace zeph
