#include "wix_registry_fragment.h"

#include "support/text.h"

#include <cstring>
#include <string_view>

namespace zeph::msi {

namespace {

// Square brackets are Windows Installer's formatting syntax; [\x] stands for x.
std::wstring EscapeFormatted(std::wstring_view text)
{
    std::wstring result;
    for (wchar_t c : text) {
        if (c == L'[' || c == L']') {
            result += L"[\\";
            result += c;
            result += L']';
        } else {
            result += c;
        }
    }
    return result;
}

// What stands for the DLL's path and for its folder (as the type library's
// HELPDIR names it, without a closing backslash) in the package.
struct Placeholders {
    std::wstring path;
    std::wstring pathText;
    std::wstring folder;
    std::wstring folderText;
};

// Formatted text, with every occurrence of the DLL's path, or else of its folder,
// replaced (letter case aside, as Windows compares paths).
std::wstring Formatted(std::wstring_view text, const Placeholders& placeholders)
{
    const std::wstring lower = AsciiLower(text);
    const std::wstring path = AsciiLower(placeholders.path);
    const std::wstring folder = AsciiLower(placeholders.folder);
    std::wstring result;
    size_t literal = 0;
    for (size_t i = 0; i < lower.size();) {
        const bool isPath = lower.compare(i, path.size(), path) == 0;
        const bool isFolder = !isPath && lower.compare(i, folder.size(), folder) == 0;
        if (!isPath && !isFolder) {
            ++i;
            continue;
        }
        result += EscapeFormatted(text.substr(literal, i - literal));
        result += isPath ? placeholders.pathText : placeholders.folderText;
        i += isPath ? path.size() : folder.size();
        literal = i;
    }
    result += EscapeFormatted(text.substr(literal));
    return result;
}

// An attribute value in double quotes.
std::string Attribute(std::wstring_view text)
{
    if (text.find(L"$(") != std::wstring_view::npos) {
        throw HarvestError("registration text holds '$(', which WiX would read as a variable: " + ToUtf8(text));
    }
    std::string result;
    for (char c : ToUtf8(text)) {
        switch (c) {
        case '&':
            result += "&amp;";
            break;
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += c;
        }
    }
    return result;
}

std::wstring StringData(const HarvestedRow& row)
{
    std::wstring text(reinterpret_cast<const wchar_t*>(row.data.data()), row.data.size() / sizeof(wchar_t));
    while (!text.empty() && text.back() == L'\0') {
        text.pop_back();
    }
    return text;
}

}  // namespace

std::string WixRegistryInclude(const Harvest& harvest, bool view32, const std::wstring& fileId,
                               const std::wstring& folderText)
{
    const size_t slash = harvest.modulePath.find_last_of(L'\\');
    if (slash == std::wstring::npos) {
        throw HarvestError("the DLL's path names no folder: " + ToUtf8(harvest.modulePath));
    }
    const Placeholders placeholders{harvest.modulePath, L"[#" + fileId + L"]", harvest.modulePath.substr(0, slash),
                                    folderText};
    std::string out =
        "<?xml version=\"1.0\" encoding=\"utf-8\"?>\n"
        "<!-- Generated at build time from what DllRegisterServer writes; do not edit. -->\n"
        "<Include>\n";
    for (const HarvestedRow& row : harvest.rows) {
        if (row.view32 != view32) {
            continue;
        }
        out += "  <RegistryValue Root=\"" + Attribute(row.root) + "\" Key=\"" +
               Attribute(Formatted(row.key, placeholders)) + "\"";
        if (!row.hasValue) {
            // Name "*": the key is created on install and removed on uninstall.
            out += " Name=\"*\" Type=\"string\" Value=\"\" />\n";
            continue;
        }
        if (!row.valueName.empty()) {
            out += " Name=\"" + Attribute(Formatted(row.valueName, placeholders)) + "\"";
        }
        if (row.type == REG_SZ) {
            std::wstring value = Formatted(StringData(row), placeholders);
            if (!value.empty() && value.front() == L'#') {
                value.insert(0, 1, L'#');  // a leading '#' would announce another type
            }
            out += " Type=\"string\" Value=\"" + Attribute(value) + "\" />\n";
        } else if (row.type == REG_DWORD && row.data.size() == sizeof(DWORD)) {
            DWORD number = 0;
            std::memcpy(&number, row.data.data(), sizeof number);
            out += " Type=\"integer\" Value=\"" + std::to_string(static_cast<long>(number)) + "\" />\n";
        } else {
            throw HarvestError("value '" + ToUtf8(row.valueName) + "' of " + ToUtf8(row.key) + " has registry type " +
                               std::to_string(row.type) + ", which the package does not write");
        }
    }
    out += "</Include>\n";
    return out;
}

}  // namespace zeph::msi
