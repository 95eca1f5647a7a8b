#include "support/sax_reader.h"

#include <objbase.h>
#include <oleauto.h>

#include <cwchar>
#include <cwctype>
#include <utility>

namespace zeph {

namespace {

constexpr CLSID kClsidSaxXmlReader30 = {0x3124c396, 0xfb13, 0x4836, {0xa6, 0xad, 0x13, 0x17, 0xf1, 0x71, 0x36, 0x88}};

constexpr size_t kMostNameUnits = 64;
constexpr size_t kMostValueUnits = 200;
constexpr wchar_t kNameEnds[] = L"<>&;\"'=/?!";

// The values a message may quote: of these attributes (and those starting so).
bool QuotedValue(std::wstring_view attribute)
{
    return attribute.starts_with(L"xmlns") || attribute.starts_with(L"xml:") || attribute == L"version" ||
           attribute == L"encoding" || attribute == L"standalone";
}

// Where a comment or a CDATA section that starts at start ends (its last unit): a
// message quotes at most their first 50 characters. start itself when none starts
// there; npos when it is not closed.
size_t SkippedTo(std::wstring_view text, size_t start)
{
    const std::wstring_view rest = text.substr(start);
    for (const auto& [open, close] : {std::pair<std::wstring_view, std::wstring_view>{L"<!--", L"-->"},
                                      std::pair<std::wstring_view, std::wstring_view>{L"<![CDATA[", L"]]>"}}) {
        if (rest.starts_with(open)) {
            const size_t end = text.find(close, start + open.size());
            return end == std::wstring_view::npos ? end : end + close.size() - 1;
        }
    }
    return start;
}

}  // namespace

HRESULT NewSaxReader(Microsoft::WRL::ComPtr<ISAXXMLReader>& reader)
{
    return ::CoCreateInstance(kClsidSaxXmlReader30, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&reader));
}

std::optional<size_t> TooLongForSaxMessages(std::wstring_view text)
{
    // msxml3 itself takes any length.
    static const bool wine = ::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "wine_get_version") != nullptr;
    if (!wine) {
        return std::nullopt;
    }
    bool inMarkup = false;
    bool afterAmpersand = false;  // an entity's name, which a message quotes when it is not defined
    wchar_t quote = 0;            // that of the attribute value being read
    bool quoted = false;          // that value is one a message may quote
    size_t name = 0;              // the name being read: its start and length
    size_t nameLength = 0;
    std::wstring_view lastName;
    size_t valueLength = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const wchar_t unit = text[i];
        if (quote != 0 && unit != quote && unit != L'<') {
            if (quoted && ++valueLength > kMostValueUnits) {
                return i;
            }
            continue;
        }
        if (quote != 0) {  // the value ends, or breaks off at a tag
            quote = 0;
            if (unit != L'<') {
                continue;
            }
        }
        if (unit == L'<') {
            const size_t end = SkippedTo(text, i);
            if (end == std::wstring_view::npos) {
                return std::nullopt;  // runs to the end of the text
            }
            if (end != i) {
                i = end;
                inMarkup = afterAmpersand = false;
                nameLength = 0;
                continue;
            }
        }
        const bool nameUnit = unit != L'\0' && !std::iswspace(unit) && std::wcschr(kNameEnds, unit) == nullptr;
        if (nameUnit && (inMarkup || afterAmpersand)) {
            name = nameLength++ == 0 ? i : name;
            if (nameLength > kMostNameUnits) {
                return name;
            }
            continue;
        }
        if (nameLength > 0) {
            lastName = text.substr(name, nameLength);
            nameLength = 0;
        }
        afterAmpersand = unit == L'&';
        if (unit == L'<') {
            inMarkup = true;
        } else if (unit == L'>') {
            inMarkup = false;
        } else if (inMarkup && (unit == L'"' || unit == L'\'')) {
            quote = unit;
            quoted = QuotedValue(lastName);
            valueLength = 0;
        }
    }
    return std::nullopt;
}

HRESULT ParseWithSax(ISAXXMLReader* reader, ISequentialStream* input, ISAXContentHandler* content,
                     ISAXErrorHandler* errors)
{
    reader->putContentHandler(content);
    reader->putErrorHandler(errors);
    VARIANT source;  // borrows the stream: nothing to clear
    ::VariantInit(&source);
    V_VT(&source) = VT_UNKNOWN;
    V_UNKNOWN(&source) = input;
    const HRESULT result = reader->parse(source);
    reader->putContentHandler(nullptr);
    reader->putErrorHandler(nullptr);
    return result;
}

}  // namespace zeph
