// Places a test owns for its lifetime: a temporary folder, and a predefined
// registry key of this process redirected to a fresh scratch key.
#pragma once

#include "win/module_path.h"
#include "win/unique_resource.h"

#include <windows.h>
#include <objbase.h>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace zeph::test {

inline std::wstring NewGuidText()
{
    GUID guid{};
    ::CoCreateGuid(&guid);
    wchar_t text[40] = {};
    ::StringFromGUID2(guid, text, 40);
    return text;
}

// The test executable's folder, where the build puts everything it makes; with a final backslash.
inline std::wstring BinFolder()
{
    const std::wstring path = ModuleFilePath(nullptr);
    return path.substr(0, path.find_last_of(L"\\/") + 1);
}

// A fresh folder under %TEMP% (its name holds a blank), removed with its contents.
class TempFolder {
public:
    explicit TempFolder(const std::wstring& prefix = L"zeph test ")
        : path_((std::filesystem::temp_directory_path() / (prefix + NewGuidText())).wstring())
    {
        EXPECT_TRUE(std::filesystem::create_directory(path_));
    }
    ~TempFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    const std::wstring& Path() const { return path_; }  // no final backslash
    // Writes a file in the folder and returns its full path.
    std::wstring WriteFile(const std::wstring& name, const std::string& bytes) const
    {
        const std::wstring path = path_ + L"\\" + name;
        std::ofstream(std::filesystem::path(path), std::ios::binary) << bytes;
        return path;
    }

private:
    std::wstring path_;
};

// A predefined key redirected, process-wide, to a fresh key below the real
// HKEY_CURRENT_USER, put back and deleted afterwards; HKEY_CURRENT_USER itself last.
class RedirectedKey {
public:
    explicit RedirectedKey(HKEY predefined) : predefined_(predefined), path_(L"Software\\ZephTest\\" + NewGuidText())
    {
        EXPECT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, path_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                    scratch_.put(), nullptr),
                  ERROR_SUCCESS);
        EXPECT_EQ(::RegOverridePredefKey(predefined_, scratch_.get()), ERROR_SUCCESS);
    }
    ~RedirectedKey()
    {
        ::RegOverridePredefKey(predefined_, nullptr);
        scratch_.reset();
        EXPECT_EQ(::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str()), ERROR_SUCCESS);
        ::RegDeleteKeyW(HKEY_CURRENT_USER, path_.c_str());
    }
    RedirectedKey(const RedirectedKey&) = delete;
    RedirectedKey& operator=(const RedirectedKey&) = delete;

    HKEY Get() const { return scratch_.get(); }
    void SetValue(const wchar_t* subkey, const wchar_t* name, DWORD type, const void* data, DWORD bytes) const
    {
        EXPECT_EQ(::RegSetKeyValueW(scratch_.get(), subkey, name, type, data, bytes), ERROR_SUCCESS);
    }
    void SetString(const wchar_t* subkey, const wchar_t* name, const std::wstring& text, DWORD type = REG_SZ) const
    {
        SetValue(subkey, name, type, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
    }

private:
    HKEY predefined_;
    std::wstring path_;
    unique_hkey scratch_;
};

}  // namespace zeph::test
