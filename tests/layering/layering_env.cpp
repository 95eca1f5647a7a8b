#include "layering_env.h"

#include <gtest/gtest.h>

namespace zeph::test {

ServiceInstall::ServiceInstall(bool withImagePath)
{
    EXPECT_TRUE(::CreateDirectoryW((folder_.Path() + L"\\Logs").c_str(), nullptr));
    if (withImagePath) {
        registry_.SetString(kServiceKey, L"ImagePath", L"\"" + folder_.Path() + L"\\drovesvc.exe\"", REG_EXPAND_SZ);
    }
}

void ServiceInstall::WriteBytes(const wchar_t* name, const void* data, DWORD bytes, bool append)
{
    const unique_file file(::CreateFileW((LogsFolder() + name).c_str(), append ? FILE_APPEND_DATA : GENERIC_WRITE,
                                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                         append ? OPEN_ALWAYS : CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    ASSERT_TRUE(file);
    DWORD written = 0;
    EXPECT_TRUE(::WriteFile(file.get(), data, bytes, &written, nullptr));
    EXPECT_EQ(written, bytes);
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
