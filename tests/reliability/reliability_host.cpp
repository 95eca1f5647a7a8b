#include "reliability_host.h"

#include "com/com_object.h"
#include "eventlog-sim/eventlog_sim.h"
#include "metric/diagnostics.h"
#include "provider/provider.h"

#include <gtest/gtest.h>

namespace zeph::test {

namespace {

std::wstring QueryMachineName()
{
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    return ::GetComputerNameExW(ComputerNameNetBIOS, name, &size) ? std::wstring(name) : std::wstring();
}

const std::wstring g_machineName = QueryMachineName();

}  // namespace

Microsoft::WRL::ComPtr<IZephDataProvider> NewProvider()
{
    Microsoft::WRL::ComPtr<IZephDataProvider> provider;
    EXPECT_EQ(ComObject<CProvider>::Create(IID_PPV_ARGS(&provider)), S_OK);
    return provider;
}

void AddChannels(std::initializer_list<const wchar_t*> channels)
{
    for (const wchar_t* channel : channels) {
        const DWORD added = ::EvtSimAddChannel(channel);
        EXPECT_TRUE(added == ERROR_SUCCESS || added == ERROR_ALREADY_EXISTS) << added;
    }
}

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

std::wstring FailureLine(const std::wstring& text, HRESULT code)
{
    const ErrorText suffix = AppendErrorText(L"", code);
    return text + (suffix.systemText ? FormatString(suffix.format.c_str(), code, suffix.systemText.get())
                                     : FormatString(suffix.format.c_str(), code));
}

size_t CountLines(const RecordingLogger& logger, LogLevel level, const std::wstring& text)
{
    size_t count = 0;
    for (const LogLine& line : logger.Lines()) {
        count += line.level == level && line.text == text ? 1 : 0;
    }
    return count;
}

bool WaitUntil(const std::function<bool()>& done, DWORD timeoutMs)
{
    for (const ULONGLONG deadline = ::GetTickCount64() + timeoutMs; !done(); ::Sleep(1)) {
        if (::GetTickCount64() >= deadline) {
            return false;
        }
    }
    return true;
}

ULONG ReferencesOf(IUnknown* object)
{
    object->AddRef();
    return object->Release();
}

}  // namespace zeph::test
