// Registry keys a host-side program owns for a while, so that registrations and
// settings are written and read without touching the machine's keys: a fresh
// scratch key below the real HKEY_CURRENT_USER, a predefined key of this process
// redirected to another key (RegOverridePredefKey, which works on Windows and in
// Wine), and the two together.
// Failure: constructors and setters throw RegistryError; destructors never throw.
// Threads: a redirection is process-wide, so one per predefined key at a time.
#pragma once

#include "win/unique_resource.h"

#include <windows.h>

#include <stdexcept>
#include <string>

namespace zeph {

// what(): "<what failed> (0x00000005)".
class RegistryError : public std::runtime_error {
public:
    RegistryError(const std::string& what, LSTATUS code);
    LSTATUS Code() const noexcept { return code_; }

private:
    LSTATUS code_;
};

// Software\<owner>\<a new GUID> below HKEY_CURRENT_USER, created empty and deleted
// with everything below it when the object goes. Make it before HKEY_CURRENT_USER
// is redirected and let it go after: while redirected, the real one is out of reach.
class ScratchKey {
public:
    explicit ScratchKey(const std::wstring& owner);
    ~ScratchKey();
    ScratchKey(const ScratchKey&) = delete;
    ScratchKey& operator=(const ScratchKey&) = delete;

    HKEY Get() const { return key_.get(); }

private:
    std::wstring path_;
    unique_hkey key_;
};

// predefined stands for target in this process while the object lives.
class KeyRedirection {
public:
    KeyRedirection(HKEY predefined, HKEY target);
    ~KeyRedirection();
    KeyRedirection(const KeyRedirection&) = delete;
    KeyRedirection& operator=(const KeyRedirection&) = delete;

private:
    HKEY predefined_;
};

// A predefined key redirected to a fresh scratch key for the object's life.
class RedirectedKey {
public:
    explicit RedirectedKey(HKEY predefined, const std::wstring& owner = L"ZephScratch")
        : scratch_(owner), redirection_(predefined, scratch_.Get())
    {
    }

    HKEY Get() const { return scratch_.Get(); }
    void SetValue(const wchar_t* subkey, const wchar_t* name, DWORD type, const void* data, DWORD bytes) const;
    void SetString(const wchar_t* subkey, const wchar_t* name, const std::wstring& text, DWORD type = REG_SZ) const;

private:
    ScratchKey scratch_;  // made before the redirection, deleted after it
    KeyRedirection redirection_;
};

}  // namespace zeph
