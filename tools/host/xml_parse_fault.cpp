#include "xml_parse_fault.h"

#include "console.h"
#include "support/ref_counted_object.h"

#include <msxml2.h>
#include <oleauto.h>
#include <wrl/client.h>

#include <new>

#if defined(__MINGW32__)
__CRT_UUID_DECL(ISAXXMLReader, 0xa4f96ed0, 0xf829, 0x476e, 0x81, 0xc0, 0xcd, 0xc7, 0xbd, 0x2a, 0x08, 0x02)
__CRT_UUID_DECL(ISAXErrorHandler, 0xa60511c4, 0xccf5, 0x479e, 0x98, 0xa3, 0xdc, 0x8d, 0xc5, 0x45, 0xb7, 0xd0)
#endif

namespace zeph::host {

namespace {

// msxml3's "Msxml2.SAXXMLReader.3.0".
constexpr CLSID kClsidSaxXmlReader30 = {0x3124c396, 0xfb13, 0x4836, {0xa6, 0xad, 0x13, 0x17, 0xf1, 0x71, 0x36, 0x88}};

// Keeps the first fault the reader reports and stops it there.
class FirstFault final : public RefCountedObject<ISAXErrorHandler> {
public:
    STDMETHODIMP error(ISAXLocator* locator, const wchar_t* message, HRESULT code) override
    {
        return Keep(locator, message, code);
    }
    STDMETHODIMP fatalError(ISAXLocator* locator, const wchar_t* message, HRESULT code) override
    {
        return Keep(locator, message, code);
    }
    STDMETHODIMP ignorableWarning(ISAXLocator*, const wchar_t*, HRESULT) override { return S_OK; }

    const std::optional<XmlFault>& Fault() const { return fault_; }

private:
    HRESULT Keep(ISAXLocator* locator, const wchar_t* message, HRESULT code)
    {
        if (fault_) {
            return code;
        }
        try {
            int line = 0;
            int column = 0;
            if (locator != nullptr) {
                locator->getLineNumber(&line);
                locator->getColumnNumber(&column);
            }
            std::wstring reason = message != nullptr ? message : L"";
            // One line: the parser's message may hold line ends of its own.
            for (wchar_t& c : reason) {
                if (c == L'\r' || c == L'\n') {
                    c = L' ';
                }
            }
            while (!reason.empty() && reason.back() == L' ') {
                reason.pop_back();
            }
            fault_ = XmlFault{line, column, reason};
        } catch (...) {
            return E_OUTOFMEMORY;
        }
        return code;
    }

    std::optional<XmlFault> fault_;
};

}  // namespace

std::wstring XmlFault::Text() const
{
    return L"at line " + std::to_wstring(line) + L", column " + std::to_wstring(column) +
           (reason.empty() ? L"" : L": " + reason);
}

Microsoft::WRL::ComPtr<IStream> MemoryStream(const std::string& bytes)
{
    Microsoft::WRL::ComPtr<IStream> stream;
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

std::optional<XmlFault> XmlParseFault(const std::string& bytes)
{
    Microsoft::WRL::ComPtr<ISAXXMLReader> reader;
    if (FAILED(::CoCreateInstance(kClsidSaxXmlReader30, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&reader)))) {
        return std::nullopt;
    }
    const auto handler = Adopt(new FirstFault());
    reader->putErrorHandler(handler.Get());

    // As a stream: Wine's reader drops the last byte of a byte array.
    const auto stream = MemoryStream(bytes);
    VARIANT input;
    ::VariantInit(&input);
    V_VT(&input) = VT_UNKNOWN;
    V_UNKNOWN(&input) = stream.Get();
    const HRESULT result = reader->parse(input);
    reader->putErrorHandler(nullptr);
    if (handler->Fault()) {
        return handler->Fault();
    }
    if (FAILED(result)) {
        return XmlFault{0, 0, L"the parser stopped with " + DescribeError(static_cast<DWORD>(result))};
    }
    return std::nullopt;
}

}  // namespace zeph::host
