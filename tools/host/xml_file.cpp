#include "xml_file.h"

#include "console.h"
#include "win/com_strings.h"
#include "win/module_path.h"
#include "win/unique_resource.h"
#include "xml_parse_fault.h"

#include <oleauto.h>

namespace zeph::host {

namespace {

std::wstring TakeBstr(BSTR text)
{
    const unique_bstr owned(text);
    return text != nullptr ? std::wstring(text, ::SysStringLen(text)) : std::wstring();
}

std::wstring ParseErrorText(IXMLDOMDocument* document)
{
    ComPtr<IXMLDOMParseError> error;
    if (FAILED(document->get_parseError(&error)) || !error) {
        return L"not well-formed XML";
    }
    BSTR reason = nullptr;
    error->get_reason(&reason);
    std::wstring text = TakeBstr(reason);
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ')) {
        text.pop_back();
    }
    long line = 0;
    long column = 0;
    error->get_line(&line);
    error->get_linepos(&column);
    std::wstring where;
    if (line > 0) {
        where = L" at line " + std::to_wstring(line) + (column > 0 ? L", column " + std::to_wstring(column) : L"");
    }
    return L"not well-formed XML" + where + (text.empty() ? L"" : L": " + text);
}

}  // namespace

ComPtr<IXMLDOMDocument> LoadXmlFile(const std::wstring& path, const wchar_t* what, ExitCode missing, ExitCode malformed)
{
    const std::wstring quoted = std::wstring(what) + L" '" + path + L"'";
    std::string bytes;
    {
        const unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                             OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file) {
            throw HostError(missing, L"cannot read the " + quoted + L": " + SystemMessage(::GetLastError()));
        }
        char buffer[65536];
        DWORD read = 0;
        while (::ReadFile(file.get(), buffer, sizeof(buffer), &read, nullptr) && read > 0) {
            bytes.append(buffer, read);
        }
    }
    if (bytes.find_first_not_of(" \t\r\n") == std::string::npos) {
        throw HostError(malformed, L"the " + quoted + L" is empty");
    }
    if (const auto fault = XmlParseFault(bytes)) {
        throw HostError(malformed, L"the " + quoted + L" is not well-formed XML " + fault->Text());
    }
    const std::wstring fullPath = FullPath(path);

    ComPtr<IXMLDOMDocument> document;
    HRESULT result = ::CoCreateInstance(kClsidDomDocument30, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&document));
    if (FAILED(result)) {
        throw HostError(ExitCode::RunFailed,
                        L"cannot create the XML parser (MSXML 3.0): " + DescribeError(static_cast<DWORD>(result)));
    }
    document->put_async(VARIANT_FALSE);
    document->put_validateOnParse(VARIANT_FALSE);
    document->put_resolveExternals(VARIANT_FALSE);
    document->put_preserveWhiteSpace(VARIANT_TRUE);

    ScopedVariant source;
    source.SetString(fullPath);
    VARIANT_BOOL loaded = VARIANT_FALSE;
    result = document->load(*source.get(), &loaded);
    if (FAILED(result) || loaded != VARIANT_TRUE) {
        throw HostError(malformed, L"the " + quoted + L" is " + ParseErrorText(document.Get()));
    }
    if (!RootElement(document.Get())) {
        throw HostError(malformed, L"the " + quoted + L" has no root element");
    }
    return document;
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
    ComPtr<IXMLDOMNode> node;
    if (FAILED(parent->get_firstChild(&node))) {
        return elements;
    }
    while (node) {
        DOMNodeType type = NODE_INVALID;
        node->get_nodeType(&type);
        if (type == NODE_ELEMENT) {
            ComPtr<IXMLDOMElement> element;
            if (SUCCEEDED(node.As(&element))) {
                elements.push_back(element);
            }
        }
        ComPtr<IXMLDOMNode> next;
        if (FAILED(node->get_nextSibling(&next))) {
            break;
        }
        node = next;
    }
    return elements;
}

std::wstring TagName(IXMLDOMElement* element)
{
    BSTR name = nullptr;
    element->get_tagName(&name);
    return TakeBstr(name);
}

std::optional<std::wstring> Attribute(IXMLDOMElement* element, const wchar_t* name)
{
    const unique_bstr attributeName(::SysAllocString(name));
    VARIANT value;
    ::VariantInit(&value);
    if (element->getAttribute(attributeName.get(), &value) != S_OK || V_VT(&value) != VT_BSTR) {
        ::VariantClear(&value);
        return std::nullopt;
    }
    std::wstring text(V_BSTR(&value), ::SysStringLen(V_BSTR(&value)));
    ::VariantClear(&value);
    return text;
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
        BSTR name = nullptr;
        if (SUCCEEDED(attributes->get_item(i, &attribute)) && attribute && SUCCEEDED(attribute->get_nodeName(&name))) {
            std::wstring text = TakeBstr(name);
            if (text != L"xmlns" && !text.starts_with(L"xmlns:")) {
                names.push_back(std::move(text));
            }
        }
    }
    return names;
}

std::wstring ElementText(IXMLDOMElement* element)
{
    // The text and CDATA children themselves: the element's text property may
    // trim or fold white space, and line structure matters in messages.
    std::wstring text;
    ComPtr<IXMLDOMNode> node;
    if (FAILED(element->get_firstChild(&node))) {
        return text;
    }
    while (node) {
        DOMNodeType type = NODE_INVALID;
        node->get_nodeType(&type);
        if (type == NODE_TEXT || type == NODE_CDATA_SECTION) {
            VARIANT value;
            ::VariantInit(&value);
            if (SUCCEEDED(node->get_nodeValue(&value)) && V_VT(&value) == VT_BSTR) {
                text.append(V_BSTR(&value), ::SysStringLen(V_BSTR(&value)));
            }
            ::VariantClear(&value);
        }
        ComPtr<IXMLDOMNode> next;
        if (FAILED(node->get_nextSibling(&next))) {
            break;
        }
        node = next;
    }
    return text;
}

}  // namespace zeph::host
