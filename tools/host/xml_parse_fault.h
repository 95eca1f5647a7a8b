// Where and why a text is not XML the DOM takes, as one line: "not well-formed XML at
// line 3, column 25: <reason>". Wine's DOMDocument reports every parse failure as
// "error" at line 0, and at a fault its SAX reader's locator still holds the place of
// the last part it reported (the start of an element's text, say), often lines before
// the fault. So the host reads the text with the SAX reader over a fed text (fed_text.h),
// follows the elements it reports, and looks for the fault itself from the end of the
// last tag the reader took: the first markup or text that cannot stand there. The reason
// is the parser's own; where the fault cannot be placed, the line alone is given. A text
// nested deeper than the DOM takes is refused here too, with that reason.
#pragma once

#include "support/ref_counted_object.h"
#include "support/sax_reader.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace zeph::host {

// A place in a text, 1-based, lines counted by line feeds as the parser does.
struct TextPosition {
    size_t line = 1;
    size_t column = 1;
};

// Moves a position from one offset of the text to a later one.
TextPosition Advance(TextPosition position, std::wstring_view text, size_t from, size_t to);

std::wstring Describe(const TextPosition& position);  // "line 3, column 7"

// The depth of elements (the root's is 1) Wine's DOMDocument takes: libxml2's 256
// levels below the root.
inline constexpr size_t kMaxElementDepth = 257;

struct XmlFault {
    long line = 0;         // 0: not known
    long column = 0;       // 0: not known, the line alone is given
    std::wstring reason;   // one line
    bool tooDeep = false;  // well-formed, but nested deeper than kMaxElementDepth

    // "not well-formed XML at line 2, column 22: reason" ("at line 2: reason" without a
    // column), or "nested too deeply at line 300, column 1: ..."
    std::wstring Text() const;
};

// The parser's message with each "line N" in it renumbered by `line`.
std::wstring RenumberLines(const std::wstring& message, const std::function<size_t(size_t)>& line);

// The fault of a text that begins at `start` of a larger one, placed in the larger one
// (the lines its reason names too).
XmlFault PlacedFrom(TextPosition start, XmlFault fault);

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

// Nothing when the text is well-formed XML no deeper than kMaxElementDepth (or no SAX
// reader can be created, or the text is too long for Wine's reader's messages: the
// DOM then reports the fault itself). A leading XML
// declaration is passed over (the text is decoded already). Allocation failures throw.
std::optional<XmlFault> XmlParseFault(std::wstring_view text);

}  // namespace zeph::host
