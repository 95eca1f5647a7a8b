#include "support/sax_reader.h"

#include <objbase.h>
#include <oleauto.h>

namespace zeph {

namespace {

constexpr CLSID kClsidSaxXmlReader30 = {0x3124c396, 0xfb13, 0x4836, {0xa6, 0xad, 0x13, 0x17, 0xf1, 0x71, 0x36, 0x88}};

}  // namespace

HRESULT NewSaxReader(Microsoft::WRL::ComPtr<ISAXXMLReader>& reader)
{
    return ::CoCreateInstance(kClsidSaxXmlReader30, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&reader));
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
