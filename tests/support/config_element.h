// Real MSXML configuration elements for tests.
#pragma once

#include "xml_dom.h"
#include <wrl/client.h>

#include <string>

namespace zeph::test {

// The document element of xml, parsed by MSXML's DOMDocument. Fails the test
// (and returns null) when the text does not parse.
Microsoft::WRL::ComPtr<IXMLDOMElement> MakeConfigElement(const std::wstring& xml);

// <metric><channel>channel</channel><query>query</query></metric>
Microsoft::WRL::ComPtr<IXMLDOMElement> MakeMetricConfig(const std::wstring& channel, const std::wstring& query);

}  // namespace zeph::test
