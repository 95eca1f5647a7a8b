// Small helpers shared by the reliability tests: the host's side of a session
// (a provider created in-process, BSTR names, expected failure lines) and
// bounded waits.
#pragma once

#include "com_strings.h"
#include "layering_env.h"
#include "logging.h"
#include "recording_logger.h"

#include <agent.h>
#include <windows.h>
#include <wrl/client.h>

#include <cstdint>
#include <functional>
#include <string>

namespace zeph::test {

// A provider object made the way the class factory makes one.
Microsoft::WRL::ComPtr<IZephDataProvider> NewProvider();

inline unique_bstr Bstr(const std::wstring& text)
{
    return MakeBstr(text);
}

// "  Error code 0x%08lx -- <system text>" or "  Error code 0x%08lx." for code,
// as every logged failure ends.
std::wstring ErrorSuffix(HRESULT code);

// A failure template followed by the suffix for code.
inline std::wstring FailureLine(const std::wstring& text, HRESULT code)
{
    return text + ErrorSuffix(code);
}

// Lines at level that equal text exactly.
size_t CountLines(const RecordingLogger& logger, LogLevel level, const std::wstring& text);

// Polls done() until it holds or timeoutMs passed; true when it held. Every
// wait of these tests is bounded so a broken delivery fails the test instead
// of hanging it.
bool WaitUntil(const std::function<bool()>& done, DWORD timeoutMs);

// The machine's NetBIOS name, read when the process starts, before any test
// redirects HKEY_LOCAL_MACHINE.
const std::wstring& MachineName();

// The system reads the computer name below HKEY_LOCAL_MACHINE, so a
// redirected machine key gets a copy of it: crash details keep their host part.
void MirrorComputerName(RedirectedMachineKey& registry);

// "<br />Host Name: NAME" as crash details end.
inline std::wstring HostNamePart()
{
    return L"<br />Host Name: " + MachineName();
}

// The reference count of object now (AddRef, then Release).
ULONG ReferencesOf(IUnknown* object);

// A seeded, well-mixed 64-bit hash: the same inputs give the same answer in
// every run, whatever the thread timing.
constexpr uint64_t Mix(uint64_t value)
{
    value += 0x9E3779B97F4A7C15ull;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ull;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBull;
    return value ^ (value >> 31);
}

}  // namespace zeph::test
