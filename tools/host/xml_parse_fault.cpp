#include "xml_parse_fault.h"

#include "console.h"
#include "event_xml.h"
#include "support/xml_document.h"

namespace zeph::host {

HRESULT FirstXmlFault::Keep(ISAXLocator* locator, const wchar_t* message, HRESULT code)
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

std::wstring XmlFault::Text() const
{
    return L"at line " + std::to_wstring(line) + L", column " + std::to_wstring(column) +
           (reason.empty() ? L"" : L": " + reason);
}

std::optional<XmlFault> XmlParseFault(const std::string& bytes)
{
    if (TooLongForSaxMessages(DecodeText(bytes))) {
        return std::nullopt;  // the DOM reports the fault, with less detail
    }
    Microsoft::WRL::ComPtr<ISAXXMLReader> reader;
    if (FAILED(NewSaxReader(reader))) {
        return std::nullopt;
    }
    const auto handler = Adopt(new FirstXmlFault());
    const HRESULT result = ParseWithSax(reader.Get(), MemoryStream(bytes).Get(), nullptr, handler.Get());
    if (handler->Fault()) {
        return handler->Fault();
    }
    if (FAILED(result)) {
        return XmlFault{0, 0, L"the parser stopped with " + DescribeError(static_cast<DWORD>(result))};
    }
    return std::nullopt;
}

}  // namespace zeph::host
