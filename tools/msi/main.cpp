// zeph-harvest-registration DLL FILE_ID FOLDER_TEXT OUTPUT OUTPUT_32
// Runs the DLL's own DllRegisterServer (in a Wine prefix made for it) and writes
// what it wrote as two WiX includes for the installer package, the rows of the
// native registry view and those of the 32-bit one, so the package's registry
// rows never drift from the DLL's registration. Exit code 0, 1 on failure, 2 on
// bad arguments.
#include "registration_harvest.h"
#include "wix_registry_fragment.h"

#include <cstdio>
#include <filesystem>
#include <fstream>

namespace {

bool Write(const wchar_t* path, const std::string& text)
{
    std::ofstream out(std::filesystem::path(path), std::ios::binary | std::ios::trunc);
    out << text;
    out.close();
    return static_cast<bool>(out);
}

}  // namespace

int wmain(int argc, wchar_t** argv)
{
    if (argc != 6) {
        std::fputs("usage: zeph-harvest-registration DLL FILE_ID FOLDER_TEXT OUTPUT OUTPUT_32\n", stderr);
        return 2;
    }
    try {
        const zeph::msi::Harvest harvest = zeph::msi::HarvestRegistration(argv[1]);
        if (!Write(argv[4], zeph::msi::WixRegistryInclude(harvest, false, argv[2], argv[3])) ||
            !Write(argv[5], zeph::msi::WixRegistryInclude(harvest, true, argv[2], argv[3]))) {
            std::fputs("zeph-harvest-registration: cannot write the output files\n", stderr);
            return 1;
        }
    } catch (const std::exception& e) {
        std::fprintf(stderr, "zeph-harvest-registration: %s\n", e.what());
        return 1;
    }
    return 0;
}
