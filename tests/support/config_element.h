// Real MSXML configuration elements for tests, parsed as zeph-host parses its files.
#pragma once

#include "support/xml_document.h"

#include <gtest/gtest.h>
#include <wrl/client.h>

#include <string>

namespace zeph::test {

// The document element of xml; fails the test (and returns null) when the text does not parse.
inline Microsoft::WRL::ComPtr<IXMLDOMElement> MakeConfigElement(const std::wstring& xml)
{
    auto element = ParseXmlElement(xml);
    EXPECT_TRUE(element) << "configuration does not parse: " << testing::PrintToString(xml);
    return element;
}

// <metric><channel>channel</channel><query>query</query></metric>
inline Microsoft::WRL::ComPtr<IXMLDOMElement> MakeMetricConfig(const std::wstring& channel, const std::wstring& query)
{
    return MakeConfigElement(L"<metric><channel>" + channel + L"</channel><query>" + query + L"</query></metric>");
}

}  // namespace zeph::test
