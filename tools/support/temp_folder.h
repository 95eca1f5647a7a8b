// A fresh folder under %TEMP% that a host-side program owns for a while (its name
// holds a blank, as paths under Program Files do), removed with its contents when
// the object goes. Failure: the constructor throws std::filesystem::filesystem_error;
// the destructor never throws.
#pragma once

#include <string>
#include <string_view>

namespace zeph {

class TempFolder {
public:
    explicit TempFolder(const std::wstring& prefix = L"zeph test ");
    ~TempFolder();
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& Path() const { return path_; }  // no final backslash
    // Writes a file in the folder and returns its full path.
    std::wstring WriteFile(const std::wstring& name, std::string_view bytes) const;

private:
    std::wstring path_;
};

}  // namespace zeph
