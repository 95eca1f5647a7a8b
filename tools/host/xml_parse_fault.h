// Where and why a file is not well-formed XML, as one line: "at line 2, column 22:
// <reason>". Wine's DOMDocument reports every parse failure as "error" at line 0 and
// writes the parser's own message to standard error, so the host reads its files
// first with msxml3's SAX reader, whose error handler gets the line, the column and
// the reason, and gives the DOM only well-formed text.
#pragma once

#include "support/ref_counted_object.h"
#include "support/sax_reader.h"

#include <optional>
#include <string>

namespace zeph::host {

struct XmlFault {
    long line = 0;
    long column = 0;
    std::wstring reason;  // one line

    std::wstring Text() const;  // "at line 2, column 22: reason"
};

// A SAX error handler that keeps the first fault the reader reports and stops it there.
class FirstXmlFault final : public RefCountedObject<ISAXErrorHandler> {
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
    HRESULT Keep(ISAXLocator* locator, const wchar_t* message, HRESULT code);

    std::optional<XmlFault> fault_;
};

// Nothing when the bytes are well-formed XML (or no SAX reader can be created, or
// the text is too long for Wine's reader's messages: the DOM then reports the fault itself).
std::optional<XmlFault> XmlParseFault(const std::string& bytes);

}  // namespace zeph::host
