// msxml3's DOMDocument as the host side reads XML with it (zeph-host's files, the
// tests' and benchmarks' metric configurations): one way to create and load a
// document, and the element reads, through ScopedVariant and unique_bstr.
// Failure: creation and loading answer HRESULTs; the reads answer empty values
// for what is not there. Allocation failures throw std::bad_alloc.
// Threads: a document belongs to the thread that uses it (the host's).
#pragma once

#include "win/xml_dom.h"

#include <objidl.h>
#include <wrl/client.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace zeph {

// A new document: loaded synchronously, neither validated nor resolving external
// entities, keeping white space as written. Failure: CoCreateInstance's HRESULT.
[[nodiscard]] HRESULT NewXmlDocument(Microsoft::WRL::ComPtr<IXMLDOMDocument>& document);

// Loads a file (a full path) or a whole stream into the document: S_OK when it
// parsed, S_FALSE when it did not (ParseErrorOf says why), or a failure.
[[nodiscard]] HRESULT LoadXml(IXMLDOMDocument* document, const std::wstring& path);
[[nodiscard]] HRESULT LoadXml(IXMLDOMDocument* document, IStream* stream);

// The bytes as an in-memory stream, read from its start. The DOM and the SAX reader
// take streams whole; Wine's loadXML refuses a text node over 10,000,000 bytes, and its
// SAX reader drops the last byte of a byte array.
Microsoft::WRL::ComPtr<IStream> MemoryStream(std::string_view bytes);

// The root element of a text of XML in a new document; null when it does not parse.
Microsoft::WRL::ComPtr<IXMLDOMElement> ParseXmlElement(std::wstring_view xml);

// What the document's parse error object says (line and column 0 when it does not know).
struct DomParseError {
    long line = 0;
    long column = 0;
    std::wstring reason;  // without its trailing line end
};
DomParseError ParseErrorOf(IXMLDOMDocument* document);

Microsoft::WRL::ComPtr<IXMLDOMElement> RootElement(IXMLDOMDocument* document);

// The element children of an element, in document order (text, comments and
// processing instructions are skipped).
std::vector<Microsoft::WRL::ComPtr<IXMLDOMElement>> ChildElements(IXMLDOMElement* parent);

std::wstring TagName(IXMLDOMElement* element);
std::wstring LocalName(IXMLDOMElement* element);  // the tag name without its prefix
std::optional<std::wstring> Attribute(IXMLDOMElement* element, const wchar_t* name);
// The names of the element's attributes, namespace declarations (xmlns, xmlns:*) left out.
std::vector<std::wstring> AttributeNames(IXMLDOMElement* element);
// The element's own text and CDATA children, as written: its text property may trim or
// fold white space, and line structure matters in messages.
std::wstring ElementText(IXMLDOMElement* element);

}  // namespace zeph
