// The host's side of a session for the reliability tests, and bounded waits.
#pragma once

#include "layering_env.h"
#include "metric/logging.h"
#include "recording_logger.h"
#include "win/com_strings.h"

#include <agent.h>
#include <windows.h>
#include <wrl/client.h>

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <string>

namespace zeph::test {

// A provider object made the way the class factory makes one.
Microsoft::WRL::ComPtr<IZephDataProvider> NewProvider();

// Adds simulated channels; fails the test when one cannot be added.
void AddChannels(std::initializer_list<const wchar_t*> channels);

// text followed by "  Error code 0x%08lx -- <system text>" (or "." alone), as logged failures end.
std::wstring FailureLine(const std::wstring& text, HRESULT code);

size_t CountLines(const RecordingLogger& logger, LogLevel level, const std::wstring& text);

// Polls done() for at most timeoutMs; true when it held.
bool WaitUntil(const std::function<bool()>& done, DWORD timeoutMs);

// The NetBIOS name, read at start-up before any test redirects HKEY_LOCAL_MACHINE;
// a redirected machine key gets a copy so crash details keep their host part.
const std::wstring& MachineName();
void MirrorComputerName(RedirectedMachineKey& registry);
inline std::wstring HostNamePart() { return L"<br />Host Name: " + MachineName(); }

ULONG ReferencesOf(IUnknown* object);

// Seeded 64-bit mixing: a crash's fate depends on the seed, never on thread timing.
constexpr uint64_t Mix(uint64_t value)
{
    value += 0x9E3779B97F4A7C15ull;
    value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9ull;
    value = (value ^ (value >> 27)) * 0x94D049BB133111EBull;
    return value ^ (value >> 31);
}

}  // namespace zeph::test
