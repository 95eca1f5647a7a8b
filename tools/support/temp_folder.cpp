#include "support/temp_folder.h"

#include "support/text.h"

#include <filesystem>
#include <fstream>

namespace zeph {

TempFolder::TempFolder(const std::wstring& prefix)
    : path_((std::filesystem::temp_directory_path() / (prefix + NewGuidText())).wstring())
{
    std::filesystem::create_directory(path_);
}

TempFolder::~TempFolder()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::wstring TempFolder::WriteFile(const std::wstring& name, std::string_view bytes) const
{
    const std::wstring path = path_ + L"\\" + name;
    std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
    return path;
}

}  // namespace zeph
