// Real MSXML configuration elements for tests.
#pragma once

#include "win/com_strings.h"
#include "win/xml_dom.h"

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <string>

namespace zeph::test {

// The document element of xml, parsed by MSXML's DOMDocument. Fails the test
// (and returns null) when the text does not parse.
inline Microsoft::WRL::ComPtr<IXMLDOMElement> MakeConfigElement(const std::wstring& xml)
{
    Microsoft::WRL::ComPtr<IXMLDOMDocument> document;
    HRESULT result = ::CoCreateInstance(kClsidDomDocument30, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&document));
    EXPECT_EQ(result, S_OK) << "MSXML DOMDocument";
    if (FAILED(result)) {
        return nullptr;
    }
    VARIANT_BOOL loaded = VARIANT_FALSE;
    document->loadXML(MakeBstr(xml).get(), &loaded);
    EXPECT_EQ(loaded, VARIANT_TRUE) << "configuration does not parse";
    Microsoft::WRL::ComPtr<IXMLDOMElement> element;
    document->get_documentElement(&element);
    return element;
}

// <metric><channel>channel</channel><query>query</query></metric>
inline Microsoft::WRL::ComPtr<IXMLDOMElement> MakeMetricConfig(const std::wstring& channel, const std::wstring& query)
{
    return MakeConfigElement(L"<metric><channel>" + channel + L"</channel><query>" + query + L"</query></metric>");
}

}  // namespace zeph::test
