// The harvested registration as WiX source: one RegistryValue element per value
// (and one per key written empty), for the component that installs the DLL.
// Wherever the DLL's path was written, the installed file's path goes instead
// ([#FILE_ID], formatted by Windows Installer at install time), and wherever
// its folder was written, folderText (formatted text naming the installed
// folder without a closing backslash).
//
// Errors: a value of a type other than REG_SZ or REG_DWORD, or text the WiX
// preprocessor would change ("$("), throws HarvestError: the package would
// otherwise write something other than the DLL does.
#pragma once

#include "registration_harvest.h"

#include <string>

namespace zeph::msi {

// A WiX include (<Include>...</Include>), UTF-8, of the rows of one registry
// view (a package's components each write to one).
std::string WixRegistryInclude(const Harvest& harvest, bool view32, const std::wstring& fileId,
                               const std::wstring& folderText);

}  // namespace zeph::msi
