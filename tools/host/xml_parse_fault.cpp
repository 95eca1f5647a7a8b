#include "xml_parse_fault.h"

#include "console.h"
#include "fed_text.h"
#include "support/sax_reader.h"
#include "support/text.h"

#include <cwctype>
#include <exception>
#include <vector>

namespace zeph::host {

namespace {

constexpr size_t npos = std::wstring_view::npos;

// Follows the elements the reader reports: which are open, and where the last tag it
// took ends. An element deeper than the DOM takes stops it. An exception (an
// allocation) stops it too and is thrown again after it.
class ElementTracker final : public RefCountedObject<ISAXContentHandler> {
public:
    explicit ElementTracker(const FedText& fed) : fed_(fed), lines_(fed), goodEnd_(fed.HeadEnd()) {}

    size_t GoodEnd() const { return goodEnd_; }
    const std::vector<size_t>& Open() const { return open_; }  // the open elements' '<', outermost first
    bool RootSeen() const { return rootSeen_; }
    size_t TooDeepAt() const { return tooDeepAt_; }  // npos unless an element was too deep
    void RethrowIfFailed() const
    {
        if (exception_) {
            std::rethrow_exception(exception_);
        }
    }

    STDMETHODIMP putDocumentLocator(ISAXLocator* locator) override
    {
        locator_ = locator;
        return S_OK;
    }
    STDMETHODIMP startDocument() override { return S_OK; }
    STDMETHODIMP endDocument() override { return S_OK; }
    STDMETHODIMP startPrefixMapping(const wchar_t*, int, const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP endPrefixMapping(const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP ignorableWhitespace(const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP skippedEntity(const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP characters(const wchar_t*, int) override { return S_OK; }
    STDMETHODIMP processingInstruction(const wchar_t*, int, const wchar_t*, int) override { return S_OK; }

    STDMETHODIMP startElement(const wchar_t*, int, const wchar_t*, int, const wchar_t*, int, ISAXAttributes*) override
    {
        try {
            const size_t start = TagStart();
            if (open_.size() + 1 > kMaxElementDepth) {
                tooDeepAt_ = start;
                return E_FAIL;
            }
            open_.push_back(start);
            rootSeen_ = true;
            goodEnd_ = fed_.TagEnd(start);
            return S_OK;
        } catch (...) {
            exception_ = std::current_exception();
            return E_ABORT;
        }
    }
    STDMETHODIMP endElement(const wchar_t*, int, const wchar_t*, int, const wchar_t*, int) override
    {
        if (!open_.empty()) {
            open_.pop_back();
        }
        goodEnd_ = fed_.TagEnd(TagStart());
        return S_OK;
    }

private:
    size_t TagStart()
    {
        int line = 0;
        locator_->getLineNumber(&line);
        return lines_.TagStart(line);
    }

    const FedText& fed_;
    FedLines lines_;
    ISAXLocator* locator_ = nullptr;  // the reader's, valid while it parses
    size_t goodEnd_;
    std::vector<size_t> open_;
    bool rootSeen_ = false;
    size_t tooDeepAt_ = npos;
    std::exception_ptr exception_;
};

bool IsXmlChar(unsigned long c)
{
    return c == 0x9 || c == 0xA || c == 0xD || (c >= 0x20 && c <= 0xD7FF) || (c >= 0xE000 && c <= 0xFFFD) ||
           (c >= 0x10000 && c <= 0x10FFFF);
}

bool IsNameChar(wchar_t c, bool first)
{
    return std::iswalpha(c) || c == L'_' || c == L':' || c >= 0x80 ||
           (!first && (std::iswdigit(c) || c == L'.' || c == L'-'));
}

// Just past the reference that begins with the '&' at `at`; npos when it is none the
// parser takes (a named one must be predefined, unless a DOCTYPE may declare it).
size_t ReferenceEnd(std::wstring_view text, size_t at, bool doctype)
{
    size_t i = at + 1;
    if (i < text.size() && text[i] == L'#') {
        const bool hex = ++i < text.size() && text[i] == L'x';
        i += hex ? 1 : 0;
        const size_t digits = i;
        unsigned long value = 0;
        for (; i < text.size() && (hex ? std::iswxdigit(text[i]) : std::iswdigit(text[i])) != 0; ++i) {
            const wchar_t c = text[i];
            const unsigned long digit = std::iswdigit(c) ? c - L'0' : (std::towlower(c) - L'a' + 10);
            value = value > 0x10FFFF ? value : value * (hex ? 16 : 10) + digit;
        }
        return i > digits && i < text.size() && text[i] == L';' && IsXmlChar(value) ? i + 1 : npos;
    }
    const size_t name = i;
    for (; i < text.size() && IsNameChar(text[i], i == name); ++i) {
    }
    if (i == name || i >= text.size() || text[i] != L';') {
        return npos;
    }
    const std::wstring_view entity = text.substr(name, i - name);
    const bool predefined =
        entity == L"lt" || entity == L"gt" || entity == L"amp" || entity == L"apos" || entity == L"quot";
    return predefined || doctype ? i + 1 : npos;
}

// Just past the DOCTYPE that begins at `at` (its internal subset in brackets); npos
// when it does not end.
size_t DoctypeEnd(std::wstring_view text, size_t at)
{
    wchar_t quote = 0;
    int brackets = 0;
    for (size_t i = at; i < text.size(); ++i) {
        const wchar_t c = text[i];
        if (quote != 0) {
            quote = c == quote ? 0 : quote;
        } else if (c == L'"' || c == L'\'') {
            quote = c;
        } else if (c == L'[') {
            ++brackets;
        } else if (c == L']') {
            --brackets;
        } else if (c == L'>' && brackets <= 0) {
            return i + 1;
        }
    }
    return npos;
}

// The first place from `from` where the text cannot go on as XML, with `depth`
// elements open there: markup the reader could not take (a tag, or a comment,
// CDATA section, processing instruction or DOCTYPE that is not closed or not
// allowed), a reference it does not know, a character XML does not allow, or text
// outside the root element. Nothing when the text ends first.
std::optional<size_t> FaultAfter(std::wstring_view text, size_t from, size_t depth, bool rootSeen)
{
    bool doctype = false;
    for (size_t i = from; i < text.size();) {
        const std::wstring_view rest = text.substr(i);
        const wchar_t c = text[i];
        if (c == L'<') {
            size_t close = npos;
            if (rest.starts_with(L"<!--")) {
                close = text.find(L"-->", i + 4);
                const std::wstring_view body = close == npos ? rest : text.substr(i + 4, close - i - 4);
                if (close == npos || body.find(L"--") != npos || body.ends_with(L'-')) {
                    return i;
                }
                close += 3;
            } else if (rest.starts_with(L"<![CDATA[")) {
                close = depth == 0 ? npos : text.find(L"]]>", i + 9);
                close = close == npos ? npos : close + 3;
            } else if (rest.starts_with(L"<?")) {
                const size_t targetEnd = std::min(text.find_first_of(L" \t\r\n?", i + 2), text.size());
                const std::wstring target = AsciiLower(text.substr(i + 2, targetEnd - i - 2));
                close = target.empty() || target == L"xml" ? npos : text.find(L"?>", i + 2);
                close = close == npos ? npos : close + 2;
            } else if (rest.starts_with(L"<!DOCTYPE") && !doctype && !rootSeen && depth == 0) {
                close = DoctypeEnd(text, i);
                doctype = close != npos;
            }
            if (close == npos) {
                return i;  // a tag, or markup that is not closed or not allowed here
            }
            i = close;
        } else if (c == L'&') {
            const size_t end = depth == 0 ? npos : ReferenceEnd(text, i, doctype);
            if (end == npos) {
                return i;
            }
            i = end;
        } else if (depth == 0) {
            if (!std::iswspace(c)) {
                return i;  // text outside the root element
            }
            ++i;
        } else if (c >= 0xD800 && c < 0xDC00 && i + 1 < text.size() && text[i + 1] >= 0xDC00 && text[i + 1] < 0xE000) {
            i += 2;
        } else if (!IsXmlChar(c) || rest.starts_with(L"]]>")) {
            return i;
        } else {
            ++i;
        }
    }
    return std::nullopt;
}

XmlFault FaultAt(std::wstring_view text, size_t offset, std::wstring reason, bool tooDeep = false)
{
    const TextPosition position = Advance(TextPosition(), text, 0, offset);
    return XmlFault{static_cast<long>(position.line), static_cast<long>(position.column), std::move(reason), tooDeep};
}

}  // namespace

TextPosition Advance(TextPosition position, std::wstring_view text, size_t from, size_t to)
{
    for (size_t i = from; i < to && i < text.size(); ++i) {
        if (text[i] == L'\n') {
            ++position.line;
            position.column = 1;
        } else {
            ++position.column;
        }
    }
    return position;
}

std::wstring Describe(const TextPosition& position)
{
    return L"line " + std::to_wstring(position.line) + L", column " + std::to_wstring(position.column);
}

std::wstring XmlFault::Text() const
{
    std::wstring text = tooDeep ? L"nested too deeply" : L"not well-formed XML";
    if (line > 0) {
        text += L" at line " + std::to_wstring(line) + (column > 0 ? L", column " + std::to_wstring(column) : L"");
    }
    return text + (reason.empty() ? L"" : L": " + reason);
}

std::wstring RenumberLines(const std::wstring& message, const std::function<size_t(size_t)>& line)
{
    std::wstring result;
    size_t copied = 0;
    for (size_t at = message.find(L"line "); at != npos; at = message.find(L"line ", at + 5)) {
        size_t digits = at + 5;
        size_t number = 0;
        for (; digits < message.size() && std::iswdigit(message[digits]); ++digits) {
            number = number * 10 + static_cast<size_t>(message[digits] - L'0');
        }
        if (digits > at + 5) {
            result += message.substr(copied, at + 5 - copied) + std::to_wstring(line(number));
            copied = digits;
        }
    }
    return result + message.substr(copied);
}

XmlFault PlacedFrom(TextPosition start, XmlFault fault)
{
    fault.reason = RenumberLines(fault.reason, [&](size_t line) { return line + start.line - 1; });
    if (fault.line > 1) {
        fault.line += static_cast<long>(start.line) - 1;
    } else if (fault.line == 1) {
        fault.line = static_cast<long>(start.line);
        fault.column = fault.column > 0 ? fault.column + static_cast<long>(start.column) - 1 : 0;
    } else {
        fault.line = static_cast<long>(start.line);  // somewhere in the text: its first line at least
        fault.column = 0;
    }
    return fault;
}

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

std::optional<XmlFault> XmlParseFault(std::wstring_view text)
{
    if (TooLongForSaxMessages(text)) {
        return std::nullopt;  // the DOM reports the fault, with less detail
    }
    Microsoft::WRL::ComPtr<ISAXXMLReader> reader;
    if (FAILED(NewSaxReader(reader))) {
        return std::nullopt;
    }
    const FedText fed(text, false);
    const auto tracker = Adopt(new ElementTracker(fed));
    const auto errors = Adopt(new FirstXmlFault());
    const HRESULT result =
        ParseWithSax(reader.Get(), Adopt(new FedStream(fed, {}, {})).Get(), tracker.Get(), errors.Get());
    tracker->RethrowIfFailed();
    if (tracker->TooDeepAt() != npos) {
        return FaultAt(text, tracker->TooDeepAt(),
                       L"an element " + std::to_wstring(kMaxElementDepth + 1) +
                           L" levels deep, where the XML parser takes " + std::to_wstring(kMaxElementDepth),
                       true);
    }
    if (!errors->Fault() && SUCCEEDED(result)) {
        return std::nullopt;
    }
    const std::wstring reason = errors->Fault()
                                    ? InTextLines(fed, errors->Fault()->reason)
                                    : L"the parser stopped with " + DescribeError(static_cast<DWORD>(result));
    const auto& open = tracker->Open();
    if (const auto at = FaultAfter(text, tracker->GoodEnd(), open.size(), tracker->RootSeen())) {
        return FaultAt(text, *at, reason);
    }
    if (!open.empty() && open.back() < text.size()) {
        const size_t start = open.back();
        const size_t nameEnd = std::min(text.find_first_of(L" \t\r\n/>", start + 1), text.size());
        return FaultAt(text, start,
                       L"<" + std::wstring(text.substr(start + 1, nameEnd - start - 1)) +
                           L"> is not closed before the end of the file");
    }
    // Not placed: the line the reader names, which may lie before the fault.
    XmlFault fault{0, 0, reason};
    if (errors->Fault() && errors->Fault()->line > 0) {
        FedLines lines(fed);
        fault.line = static_cast<long>(
            Advance(TextPosition(), text, 0, lines.Start(static_cast<size_t>(errors->Fault()->line))).line);
    }
    return fault;
}

}  // namespace zeph::host
