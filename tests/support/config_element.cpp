#include "config_element.h"

#include "com_strings.h"

#include <gtest/gtest.h>

namespace zeph::test {

Microsoft::WRL::ComPtr<IXMLDOMElement> MakeConfigElement(const std::wstring& xml)
{
    Microsoft::WRL::ComPtr<IXMLDOMDocument> document;
    HRESULT result = ::CoCreateInstance(kClsidDomDocument30, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&document));
    EXPECT_EQ(result, S_OK) << "MSXML DOMDocument";
    if (FAILED(result)) {
        return nullptr;
    }
    VARIANT_BOOL loaded = VARIANT_FALSE;
    const unique_bstr text = MakeBstr(xml);
    result = document->loadXML(text.get(), &loaded);
    EXPECT_EQ(loaded, VARIANT_TRUE) << "configuration does not parse";
    Microsoft::WRL::ComPtr<IXMLDOMElement> element;
    document->get_documentElement(&element);
    return element;
}

Microsoft::WRL::ComPtr<IXMLDOMElement> MakeMetricConfig(const std::wstring& channel, const std::wstring& query)
{
    return MakeConfigElement(L"<metric><channel>" + channel + L"</channel><query>" + query +
                             L"</query></metric>");
}

}  // namespace zeph::test
