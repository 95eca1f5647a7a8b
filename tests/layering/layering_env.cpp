#include "layering_env.h"

#include <gtest/gtest.h>

#include <objbase.h>

#include <filesystem>

namespace zeph::test {

static std::wstring NewGuidText()
{
    GUID guid{};
    ::CoCreateGuid(&guid);
    wchar_t text[40] = {};
    ::StringFromGUID2(guid, text, 40);
    return text;
}

RedirectedMachineKey::RedirectedMachineKey() : scratchPath_(L"Software\\ZephTest\\" + NewGuidText())
{
    EXPECT_EQ(::RegCreateKeyExW(HKEY_CURRENT_USER, scratchPath_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                                &scratch_, nullptr),
              ERROR_SUCCESS);
    EXPECT_EQ(::RegOverridePredefKey(HKEY_LOCAL_MACHINE, scratch_), ERROR_SUCCESS);
}

RedirectedMachineKey::~RedirectedMachineKey()
{
    ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    ::RegCloseKey(scratch_);
    ::RegDeleteTreeW(HKEY_CURRENT_USER, scratchPath_.c_str());
    ::RegDeleteKeyW(HKEY_CURRENT_USER, scratchPath_.c_str());
}

void RedirectedMachineKey::SetValue(const wchar_t* subkey, const wchar_t* name, DWORD type, const void* data,
                                    DWORD bytes)
{
    EXPECT_EQ(::RegSetKeyValueW(scratch_, subkey, name, type, data, bytes), ERROR_SUCCESS);
}

void RedirectedMachineKey::SetString(const wchar_t* subkey, const wchar_t* name, const std::wstring& text, DWORD type)
{
    SetValue(subkey, name, type, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

ServiceInstall::ServiceInstall(bool withImagePath)
{
    wchar_t temp[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, temp);
    folder_ = std::wstring(temp) + L"zeph layering " + NewGuidText();  // a blank, so the path needs its quotes
    EXPECT_TRUE(::CreateDirectoryW(folder_.c_str(), nullptr));
    EXPECT_TRUE(::CreateDirectoryW((folder_ + L"\\Logs").c_str(), nullptr));
    if (withImagePath) {
        registry_.SetString(kServiceKey, L"ImagePath", L"\"" + folder_ + L"\\drovesvc.exe\"", REG_EXPAND_SZ);
    }
}

ServiceInstall::~ServiceInstall()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
}

void ServiceInstall::WriteBytes(const wchar_t* name, const void* data, DWORD bytes, bool append)
{
    const HANDLE file = ::CreateFileW((LogsFolder() + name).c_str(), append ? FILE_APPEND_DATA : GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                      append ? OPEN_ALWAYS : CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
    ASSERT_NE(file, INVALID_HANDLE_VALUE);
    DWORD written = 0;
    EXPECT_TRUE(::WriteFile(file, data, bytes, &written, nullptr));
    EXPECT_EQ(written, bytes);
    ::CloseHandle(file);
}

void ServiceInstall::RotateLog()
{
    EXPECT_TRUE(::MoveFileExW((LogsFolder() + L"drovesvc.log").c_str(), (LogsFolder() + L"drovesvc_bak.log").c_str(),
                              MOVEFILE_REPLACE_EXISTING));
}

void ServiceInstall::RemoveLog()
{
    EXPECT_TRUE(::DeleteFileW((LogsFolder() + L"drovesvc.log").c_str()));
}

}  // namespace zeph::test
