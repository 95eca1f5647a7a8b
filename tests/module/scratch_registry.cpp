#include "scratch_registry.h"

#include <gtest/gtest.h>

#include <vector>

namespace zeph::test {

namespace {

constexpr wchar_t kScratchParent[] = L"Software\\ZephTest\\";

unique_hkey CreateKey(HKEY root, const std::wstring& path, DWORD options = REG_OPTION_NON_VOLATILE)
{
    unique_hkey key;
    const LSTATUS status =
        ::RegCreateKeyExW(root, path.c_str(), 0, nullptr, options, KEY_ALL_ACCESS, nullptr, key.put(), nullptr);
    EXPECT_EQ(status, ERROR_SUCCESS) << "cannot create a scratch key";
    return key;
}

void Collect(HKEY key, const std::wstring& prefix, std::set<std::wstring>& lines)
{
    std::vector<wchar_t> name(16384);
    std::vector<BYTE> data(65536);
    for (DWORD index = 0;; ++index) {
        DWORD nameLength = static_cast<DWORD>(name.size());
        DWORD dataLength = static_cast<DWORD>(data.size());
        DWORD type = 0;
        if (::RegEnumValueW(key, index, name.data(), &nameLength, nullptr, &type, data.data(), &dataLength) !=
            ERROR_SUCCESS) {
            break;
        }
        std::wstring line = prefix + L" [" + (nameLength == 0 ? L"@" : std::wstring(name.data(), nameLength)) + L"]";
        if (type == REG_SZ) {
            std::wstring text(reinterpret_cast<const wchar_t*>(data.data()), dataLength / sizeof(wchar_t));
            text.resize(text.find(L'\0') == std::wstring::npos ? text.size() : text.find(L'\0'));
            line += L" = " + text;
        } else {
            line += L" <type " + std::to_wstring(type) + L">";
        }
        lines.insert(line);
    }
    for (DWORD index = 0;; ++index) {
        DWORD nameLength = static_cast<DWORD>(name.size());
        if (::RegEnumKeyExW(key, index, name.data(), &nameLength, nullptr, nullptr, nullptr, nullptr) !=
            ERROR_SUCCESS) {
            break;
        }
        const std::wstring child(name.data(), nameLength);
        const std::wstring childPath = prefix.empty() ? child : prefix + L"\\" + child;
        lines.insert(childPath);
        unique_hkey sub;
        if (::RegOpenKeyExW(key, child.c_str(), 0, KEY_READ, sub.put()) == ERROR_SUCCESS) {
            Collect(sub.get(), childPath, lines);
        }
    }
}

}  // namespace

ScratchRegistry::ScratchRegistry(const std::wstring& name) : path_(kScratchParent + name)
{
    ::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str());  // leftovers of an aborted run
    classesRoot_ = CreateKey(HKEY_CURRENT_USER, path_ + L"\\ClassesRoot");
    currentUser_ = CreateKey(HKEY_CURRENT_USER, path_ + L"\\CurrentUser");
    EXPECT_EQ(::RegOverridePredefKey(HKEY_CLASSES_ROOT, classesRoot_.get()), ERROR_SUCCESS);
    EXPECT_EQ(::RegOverridePredefKey(HKEY_CURRENT_USER, currentUser_.get()), ERROR_SUCCESS);
}

ScratchRegistry::~ScratchRegistry()
{
    ::RegOverridePredefKey(HKEY_CURRENT_USER, nullptr);
    ::RegOverridePredefKey(HKEY_CLASSES_ROOT, nullptr);
    classesRoot_.reset();
    currentUser_.reset();
    EXPECT_EQ(::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str()), ERROR_SUCCESS);
    ::RegDeleteKeyW(HKEY_CURRENT_USER, path_.c_str());
}

std::set<std::wstring> RegistryTree(HKEY root, const std::wstring& path)
{
    std::set<std::wstring> lines;
    unique_hkey key;
    if (::RegOpenKeyExW(root, path.empty() ? nullptr : path.c_str(), 0, KEY_READ, key.put()) == ERROR_SUCCESS) {
        Collect(key.get(), L"", lines);
    }
    return lines;
}

std::set<std::wstring> RegistryTree(HKEY root, const std::wstring& path, const std::set<std::wstring>& keys)
{
    std::set<std::wstring> lines;
    for (const std::wstring& line : RegistryTree(root, path)) {
        const std::wstring top = line.substr(0, line.find_first_of(L"\\ "));
        if (keys.count(top) != 0) {
            lines.insert(line);
        }
    }
    return lines;
}

void WriteKey(HKEY root, const std::wstring& path, const wchar_t* name, const std::wstring& value, DWORD options)
{
    const unique_hkey key = CreateKey(root, path, options);
    if (key && name != nullptr) {
        EXPECT_EQ(::RegSetValueExW(key.get(), name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                                   static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t))),
                  ERROR_SUCCESS);
    }
}

}  // namespace zeph::test
