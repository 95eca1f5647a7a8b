// Places a test owns for its lifetime (support/temp_folder.h, support/registry_redirection.h),
// and the folder the build puts everything in.
#pragma once

#include "support/registry_redirection.h"
#include "support/temp_folder.h"
#include "win/module_path.h"

#include <string>

namespace zeph::test {

// The test executable's folder, where the build puts everything it makes; with a final backslash.
inline std::wstring BinFolder()
{
    const std::wstring path = ModuleFilePath(nullptr);
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

}  // namespace zeph::test
