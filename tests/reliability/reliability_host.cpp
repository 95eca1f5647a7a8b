#include "reliability_host.h"

#include "com_object.h"
#include "diagnostics.h"
#include "provider.h"

#include <gtest/gtest.h>

namespace zeph::test {

Microsoft::WRL::ComPtr<IZephDataProvider> NewProvider()
{
    Microsoft::WRL::ComPtr<IZephDataProvider> provider;
    EXPECT_EQ(ComObject<CProvider>::Create(IID_PPV_ARGS(&provider)), S_OK);
    return provider;
}

namespace {

std::wstring QueryMachineName()
{
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    return ::GetComputerNameExW(ComputerNameNetBIOS, name, &size) ? std::wstring(name) : std::wstring();
}

const std::wstring g_machineName = QueryMachineName();

}  // namespace

const std::wstring& MachineName()
{
    return g_machineName;
}

void MirrorComputerName(RedirectedMachineKey& registry)
{
    for (const wchar_t* key : {L"System\\CurrentControlSet\\Control\\ComputerName\\ComputerName",
                               L"System\\CurrentControlSet\\Control\\ComputerName\\ActiveComputerName"}) {
        registry.SetString(key, L"ComputerName", g_machineName);
    }
}

std::wstring ErrorSuffix(HRESULT code)
{
    const ErrorText text = AppendErrorText(L"", code);
    return text.systemText ? FormatString(text.format.c_str(), code, text.systemText.get())
                           : FormatString(text.format.c_str(), code);
}

size_t CountLines(const RecordingLogger& logger, LogLevel level, const std::wstring& text)
{
    size_t count = 0;
    for (const LogLine& line : logger.Lines()) {
        if (line.level == level && line.text == text) {
            ++count;
        }
    }
    return count;
}

bool WaitUntil(const std::function<bool()>& done, DWORD timeoutMs)
{
    const ULONGLONG deadline = ::GetTickCount64() + timeoutMs;
    for (;;) {
        if (done()) {
            return true;
        }
        if (::GetTickCount64() >= deadline) {
            return false;
        }
        ::Sleep(1);
    }
}

ULONG ReferencesOf(IUnknown* object)
{
    object->AddRef();
    return object->Release();
}

}  // namespace zeph::test
