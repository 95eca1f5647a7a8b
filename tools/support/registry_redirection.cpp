#include "support/registry_redirection.h"

#include "support/text.h"

#include <cstdio>

namespace zeph {

namespace {

void Check(LSTATUS status, const char* what)
{
    if (status != ERROR_SUCCESS) {
        throw RegistryError(what, status);
    }
}

std::string WithCode(const std::string& what, LSTATUS code)
{
    char number[16];
    std::snprintf(number, sizeof number, "0x%08lx", static_cast<unsigned long>(code));
    return what + " (" + number + ")";
}

}  // namespace

RegistryError::RegistryError(const std::string& what, LSTATUS code)
    : std::runtime_error(WithCode(what, code)), code_(code)
{
}

ScratchKey::ScratchKey(const std::wstring& owner) : path_(L"Software\\" + owner + L"\\" + NewGuidText())
{
    Check(::RegCreateKeyExW(HKEY_CURRENT_USER, path_.c_str(), 0, nullptr, REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS,
                            nullptr, key_.put(), nullptr),
          "cannot create the scratch key");
}

ScratchKey::~ScratchKey()
{
    key_.reset();
    ::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str());
    ::RegDeleteKeyW(HKEY_CURRENT_USER, path_.c_str());
}

KeyRedirection::KeyRedirection(HKEY predefined, HKEY target) : predefined_(predefined)
{
    Check(::RegOverridePredefKey(predefined, target), "cannot redirect the registry");
}

KeyRedirection::~KeyRedirection()
{
    ::RegOverridePredefKey(predefined_, nullptr);
}

void RedirectedKey::SetValue(const wchar_t* subkey, const wchar_t* name, DWORD type, const void* data,
                             DWORD bytes) const
{
    Check(::RegSetKeyValueW(Get(), subkey, name, type, data, bytes), "cannot write a registry value");
}

void RedirectedKey::SetString(const wchar_t* subkey, const wchar_t* name, const std::wstring& text, DWORD type) const
{
    SetValue(subkey, name, type, text.c_str(), static_cast<DWORD>((text.size() + 1) * sizeof(wchar_t)));
}

}  // namespace zeph
