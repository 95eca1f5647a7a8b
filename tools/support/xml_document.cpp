#include "support/xml_document.h"

#include "support/text.h"
#include "win/com_strings.h"
#include "win/unique_resource.h"

#include <objbase.h>
#include <oleauto.h>

#include <new>

namespace zeph {

using Microsoft::WRL::ComPtr;

namespace {

std::wstring Text(const unique_bstr& text)
{
    return text ? std::wstring(text.get(), ::SysStringLen(text.get())) : std::wstring();
}

// Each node of the element's children in document order, until visit returns false.
template <typename Visit>
void ForEachChild(IXMLDOMElement* parent, Visit visit)
{
    ComPtr<IXMLDOMNode> node;
    if (FAILED(parent->get_firstChild(&node))) {
        return;
    }
    while (node) {
        DOMNodeType type = NODE_INVALID;
        node->get_nodeType(&type);
        visit(node.Get(), type);
        ComPtr<IXMLDOMNode> next;
        if (FAILED(node->get_nextSibling(&next))) {
            break;
        }
        node = next;
    }
}

}  // namespace

HRESULT NewXmlDocument(ComPtr<IXMLDOMDocument>& document)
{
    const HRESULT result =
        ::CoCreateInstance(kClsidDomDocument30, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&document));
    if (FAILED(result)) {
        return result;
    }
    document->put_async(VARIANT_FALSE);
    document->put_validateOnParse(VARIANT_FALSE);
    document->put_resolveExternals(VARIANT_FALSE);
    document->put_preserveWhiteSpace(VARIANT_TRUE);  // blank text is data (insertion strings, messages)
    return S_OK;
}

HRESULT LoadXml(IXMLDOMDocument* document, const std::wstring& path)
{
    ScopedVariant source;
    source.SetString(path);
    VARIANT_BOOL loaded = VARIANT_FALSE;
    const HRESULT result = document->load(*source.get(), &loaded);
    return FAILED(result) ? result : loaded == VARIANT_TRUE ? S_OK : S_FALSE;
}

HRESULT LoadXml(IXMLDOMDocument* document, IStream* stream)
{
    VARIANT source;  // borrows the stream: nothing to clear
    ::VariantInit(&source);
    V_VT(&source) = VT_UNKNOWN;
    V_UNKNOWN(&source) = stream;
    VARIANT_BOOL loaded = VARIANT_FALSE;
    const HRESULT result = document->load(source, &loaded);
    return FAILED(result) ? result : loaded == VARIANT_TRUE ? S_OK : S_FALSE;
}

ComPtr<IStream> MemoryStream(std::string_view bytes)
{
    ComPtr<IStream> stream;
    if (FAILED(::CreateStreamOnHGlobal(nullptr, TRUE, &stream))) {
        throw std::bad_alloc();
    }
    ULONG written = 0;
    if (FAILED(stream->Write(bytes.data(), static_cast<ULONG>(bytes.size()), &written)) || written != bytes.size() ||
        FAILED(stream->Seek(LARGE_INTEGER{}, STREAM_SEEK_SET, nullptr))) {
        throw std::bad_alloc();
    }
    return stream;
}

ComPtr<IXMLDOMElement> ParseXmlElement(std::wstring_view xml)
{
    ComPtr<IXMLDOMDocument> document;
    if (FAILED(NewXmlDocument(document)) || LoadXml(document.Get(), MemoryStream(ToUtf8(xml)).Get()) != S_OK) {
        return nullptr;
    }
    return RootElement(document.Get());
}

DomParseError ParseErrorOf(IXMLDOMDocument* document)
{
    DomParseError parsed;
    ComPtr<IXMLDOMParseError> error;
    if (FAILED(document->get_parseError(&error)) || !error) {
        return parsed;
    }
    unique_bstr reason;
    error->get_reason(reason.put());
    error->get_line(&parsed.line);
    error->get_linepos(&parsed.column);
    parsed.reason = Text(reason);
    while (!parsed.reason.empty() &&
           (parsed.reason.back() == L'\n' || parsed.reason.back() == L'\r' || parsed.reason.back() == L' ')) {
        parsed.reason.pop_back();
    }
    return parsed;
}

ComPtr<IXMLDOMElement> RootElement(IXMLDOMDocument* document)
{
    ComPtr<IXMLDOMElement> root;
    if (FAILED(document->get_documentElement(&root))) {
        return nullptr;
    }
    return root;
}

std::vector<ComPtr<IXMLDOMElement>> ChildElements(IXMLDOMElement* parent)
{
    std::vector<ComPtr<IXMLDOMElement>> elements;
    ForEachChild(parent, [&](IXMLDOMNode* node, DOMNodeType type) {
        ComPtr<IXMLDOMElement> element;
        if (type == NODE_ELEMENT && SUCCEEDED(node->QueryInterface(IID_PPV_ARGS(&element)))) {
            elements.push_back(element);
        }
    });
    return elements;
}

std::wstring TagName(IXMLDOMElement* element)
{
    unique_bstr name;
    element->get_tagName(name.put());
    return Text(name);
}

std::wstring LocalName(IXMLDOMElement* element)
{
    unique_bstr name;
    element->get_baseName(name.put());
    return Text(name);
}

std::optional<std::wstring> Attribute(IXMLDOMElement* element, const wchar_t* name)
{
    ScopedVariant value;
    if (element->getAttribute(MakeBstr(name).get(), value.get()) != S_OK || V_VT(value.get()) != VT_BSTR) {
        return std::nullopt;
    }
    return std::wstring(V_BSTR(value.get()), ::SysStringLen(V_BSTR(value.get())));
}

std::vector<std::wstring> AttributeNames(IXMLDOMElement* element)
{
    std::vector<std::wstring> names;
    ComPtr<IXMLDOMNamedNodeMap> attributes;
    long count = 0;
    if (FAILED(element->get_attributes(&attributes)) || !attributes || FAILED(attributes->get_length(&count))) {
        return names;
    }
    for (long i = 0; i < count; ++i) {
        ComPtr<IXMLDOMNode> attribute;
        unique_bstr name;
        if (SUCCEEDED(attributes->get_item(i, &attribute)) && attribute &&
            SUCCEEDED(attribute->get_nodeName(name.put()))) {
            std::wstring text = Text(name);
            if (text != L"xmlns" && !text.starts_with(L"xmlns:")) {
                names.push_back(std::move(text));
            }
        }
    }
    return names;
}

std::wstring ElementText(IXMLDOMElement* element)
{
    std::wstring text;
    ForEachChild(element, [&](IXMLDOMNode* node, DOMNodeType type) {
        ScopedVariant value;
        if ((type == NODE_TEXT || type == NODE_CDATA_SECTION) && SUCCEEDED(node->get_nodeValue(value.get())) &&
            V_VT(value.get()) == VT_BSTR) {
            text.append(V_BSTR(value.get()), ::SysStringLen(V_BSTR(value.get())));
        }
    });
    return text;
}

}  // namespace zeph
