// This machine's NetBIOS name, which crash details end with.
#pragma once

#include <windows.h>

#include <string>

namespace zeph::test {

inline std::wstring MachineName()
{
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    return ::GetComputerNameExW(ComputerNameNetBIOS, name, &size) ? std::wstring(name) : std::wstring();
}

}  // namespace zeph::test
