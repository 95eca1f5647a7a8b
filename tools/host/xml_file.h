// Reading the host's XML files (configuration, scenario) with msxml3's DOMDocument.
#pragma once

#include "exit_codes.h"
#include "win/xml_dom.h"

#include <wrl/client.h>

#include <optional>
#include <string>
#include <vector>

namespace zeph::host {

using Microsoft::WRL::ComPtr;

// Loads a file, keeping white space as written. A file that cannot be opened
// throws HostError(missing), one that does not parse HostError(malformed), both
// with a one-line message naming `what` and the file. No DOMDocument: RunFailed.
ComPtr<IXMLDOMDocument> LoadXmlFile(const std::wstring& path, const wchar_t* what, ExitCode missing,
                                    ExitCode malformed);

ComPtr<IXMLDOMElement> RootElement(IXMLDOMDocument* document);

// The element children of an element, in document order (text, comments and
// processing instructions are skipped).
std::vector<ComPtr<IXMLDOMElement>> ChildElements(IXMLDOMElement* parent);

std::wstring TagName(IXMLDOMElement* element);
std::optional<std::wstring> Attribute(IXMLDOMElement* element, const wchar_t* name);
// The names of the element's attributes, namespace declarations (xmlns, xmlns:*) left out.
std::vector<std::wstring> AttributeNames(IXMLDOMElement* element);
// The element's own text and CDATA content, as written.
std::wstring ElementText(IXMLDOMElement* element);

}  // namespace zeph::host
