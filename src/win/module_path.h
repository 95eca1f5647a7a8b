// Paths of module files, and full paths of relative ones.
// Allocation failures throw std::bad_alloc; a system failure to name a module
// throws its Win32 code as HResultError. Threads: any; no state.
#pragma once

#include <windows.h>

#include <string>

namespace zeph {

// The full path of the file the module was loaded from.
std::wstring ModuleFilePath(HMODULE module);

// The full path of the module (DLL or EXE) that holds this code.
std::wstring OwnModuleFilePath();

// path made absolute against the current folder; path itself when the system
// cannot do that.
std::wstring FullPath(const std::wstring& path);

}  // namespace zeph
