#include "event_scan.h"

#include "console.h"
#include "exit_codes.h"
#include "fed_text.h"
#include "support/ref_counted_object.h"
#include "support/sax_reader.h"
#include "support/text.h"
#include "xml_parse_fault.h"

#include <algorithm>
#include <cstring>
#include <cwctype>
#include <exception>
#include <utility>

namespace zeph::host {

namespace {

constexpr size_t npos = std::wstring_view::npos;
constexpr wchar_t kEventTag[] = L"Event";
constexpr wchar_t kEventsTag[] = L"Events";

// What the reader reads around the text: a root of our own, so that several <Event>
// elements make one document, and an element that marks the text's end (Wine's reader
// reports no processing instructions).
constexpr char kRootStart[] = "<file>";
constexpr char kRootEnd[] = "<zeph-end-of-text/></file>";
constexpr wchar_t kEndOfText[] = L"zeph-end-of-text";

// The content handler: follows the file's shape (root, <Events>, <Event>), hands each
// event's offsets over when its end tag is read, and keeps the first fault. An exception
// (of EventFound, or an allocation) stops the reader and is thrown again after it.
class EventScanner final : public RefCountedObject<ISAXContentHandler> {
public:
    EventScanner(const FedText& fed, const EventFound& found) : fed_(fed), lines_(fed), found_(found) {}

    const std::optional<std::wstring>& Fault() const { return fault_; }
    bool Stopped() const { return stopped_; }
    void RethrowIfFailed() const
    {
        if (exception_) {
            std::rethrow_exception(exception_);
        }
    }

    // A fault the reader reported, the reader having read the text up to `read`. In an
    // event, where XmlParseFault places it in the event's own text (the DOM reads that
    // text alone), or the reader's line where it cannot; between events, where the markup
    // the reader stopped at begins, in the file's own words where they fit and the
    // parser's otherwise.
    std::wstring ParserFault(const XmlFault& fault, size_t read) const
    {
        const std::wstring_view text = fed_.Text();
        if (eventStart_ != npos) {
            if (const auto own = XmlParseFault(text.substr(eventStart_, read - eventStart_))) {
                return Which() + L": " + PlacedFrom(PositionOf(eventStart_), *own).Text();
            }
            // Not placed: the line the reader names, in the text's lines.
            FedLines lines(fed_);
            const size_t line = PositionOf(lines.Start(static_cast<size_t>(std::max(fault.line, 1L)))).line;
            return Which() + L": " + XmlFault{static_cast<long>(line), 0, InTextLines(fed_, fault.reason)}.Text();
        }
        const size_t at = FirstContent(cursor_);
        if (const auto what = OpenMarkup(at)) {
            return Located(at, *what);
        }
        const TextPosition position = PositionOf(at);
        return Which() + L": " +
               XmlFault{static_cast<long>(position.line), static_cast<long>(position.column),
                        InTextLines(fed_, fault.reason)}
                   .Text();
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

    STDMETHODIMP startElement(const wchar_t*, int, const wchar_t* local, int localLength, const wchar_t* name,
                              int nameLength, ISAXAttributes*) override
    {
        return Guarded([&] {
            return Start(std::wstring_view(local, static_cast<size_t>(localLength)),
                         std::wstring_view(name, static_cast<size_t>(nameLength)));
        });
    }
    STDMETHODIMP endElement(const wchar_t*, int, const wchar_t*, int, const wchar_t*, int) override
    {
        return Guarded([&] { return End(); });
    }
    STDMETHODIMP characters(const wchar_t* chars, int length) override
    {
        return Guarded([&] { return Text(std::wstring_view(chars, static_cast<size_t>(length))); });
    }
    STDMETHODIMP processingInstruction(const wchar_t*, int, const wchar_t*, int) override { return S_OK; }

private:
    template <typename Body>
    HRESULT Guarded(Body body) noexcept
    {
        try {
            return body();
        } catch (...) {
            exception_ = std::current_exception();
            stopped_ = true;
            return E_ABORT;
        }
    }

    HRESULT Start(std::wstring_view localName, std::wstring_view name)
    {
        if (!inRoot_) {
            inRoot_ = true;  // kRootStart
            return S_OK;
        }
        if (name == kEndOfText) {  // what is still open is not closed
            const size_t end = fed_.Text().size();
            return eventStart_ != npos ? Fail(eventStart_, L"<Event> is not closed before the end of the file")
                   : depth_ > 0        ? Fail(end, L"<Events> is not closed before the end of the file")
                   : events_ == 0      ? Fail(end, L"the file holds no <Event>")
                                       : S_OK;
        }
        if (eventStart_ != npos) {
            ++depth_;  // inside an event: its content is the DOM's business
            return S_OK;
        }
        const size_t start = TagStart();
        if (depth_ == 0 && localName == kEventsTag) {
            inEvents_ = true;
            cursor_ = TagEnd(start);
        } else if ((depth_ == 0 || (depth_ == 1 && inEvents_)) && localName == kEventTag) {
            eventStart_ = start;
            eventDepth_ = depth_;
        } else {
            return Fail(start, L"expected <Event> or <Events>, found <" + std::wstring(name) + L">");
        }
        ++depth_;
        return S_OK;
    }

    HRESULT End()
    {
        if (depth_ == 0) {
            return S_OK;  // the end of kRootEnd's elements
        }
        --depth_;
        if (eventStart_ != npos && depth_ > eventDepth_) {
            return S_OK;
        }
        const size_t end = TagEnd(TagStart());
        cursor_ = end;
        if (eventStart_ == npos) {
            inEvents_ = false;  // </Events>
            return S_OK;
        }
        const size_t start = std::exchange(eventStart_, npos);
        if (!found_(++events_, start, end)) {
            stopped_ = true;
            return E_ABORT;
        }
        return S_OK;
    }

    HRESULT Text(std::wstring_view chars)
    {
        if (eventStart_ == npos &&
            std::any_of(chars.begin(), chars.end(), [](wchar_t c) { return !std::iswspace(c); })) {
            return Fail(FirstContent(cursor_), L"text outside an <Event> element");
        }
        return S_OK;
    }

    // The '<' of the tag the reader is at.
    size_t TagStart()
    {
        int line = 0;
        locator_->getLineNumber(&line);
        return lines_.TagStart(line);
    }

    size_t TagEnd(size_t start) const { return fed_.TagEnd(start); }

    // The first offset from `from` that is neither blank nor a comment or processing instruction.
    size_t FirstContent(size_t from) const
    {
        const std::wstring_view text = fed_.Text();
        for (size_t i = std::max(from, fed_.HeadEnd()); i < text.size();) {
            const std::wstring_view rest = text.substr(i);
            const std::wstring_view end = rest.starts_with(L"<!--") ? L"-->" : rest.starts_with(L"<?") ? L"?>" : L"";
            const size_t close = end.empty() ? npos : text.find(end, i + 2);
            if (close != npos) {
                i = close + end.size();
            } else if (std::iswspace(text[i])) {
                ++i;
            } else {
                return i;
            }
        }
        return text.size();
    }

    // The file's own words for markup between events that the reader could not read: a
    // stray end tag at the top level, or markup that the end of the file cuts off.
    std::optional<std::wstring> OpenMarkup(size_t at) const
    {
        const std::wstring_view text = fed_.Text();
        const std::wstring_view rest = text.substr(at);
        if (rest.empty() || rest[0] != L'<') {
            return std::nullopt;
        }
        const std::wstring_view close = rest.starts_with(L"<!--")        ? L"-->"
                                        : rest.starts_with(L"<![CDATA[") ? L"]]>"
                                        : rest.starts_with(L"<?")        ? L"?>"
                                        : rest.starts_with(L"<!")        ? L">"
                                                                         : L"";
        if (!close.empty()) {
            return rest.find(close, 2) == npos
                       ? std::optional<std::wstring>(L"markup not closed before the end of the file")
                       : std::nullopt;
        }
        const bool endTag = rest.starts_with(L"</");
        const size_t nameStart = endTag ? 2 : 1;
        const size_t nameEnd = std::min(rest.find_first_of(L" \t\r\n>/", nameStart), rest.size());
        const std::wstring name(rest.substr(nameStart, nameEnd - nameStart));
        if (name.empty()) {
            return L"'<' that starts no tag (write &lt; in text)";
        }
        if (TagEnd(at) == text.size() && text.back() != L'>') {
            return L"the tag <" + name + L"> is not closed before the end of the file";
        }
        if (endTag && depth_ == 0) {
            return L"</" + name + L"> closes no element";
        }
        return std::nullopt;
    }

    TextPosition PositionOf(size_t offset) const { return Advance(TextPosition(), fed_.Text(), 0, offset); }

    std::wstring Which() const
    {
        return eventStart_ != npos ? L"event " + std::to_wstring(events_ + 1)
               : events_ == 0      ? L"before the first event"
                                   : L"after event " + std::to_wstring(events_);
    }

    std::wstring Located(size_t at, const std::wstring& what) const
    {
        return Which() + L" (" + Describe(PositionOf(at)) + L"): " + what;
    }

    HRESULT Fail(size_t at, const std::wstring& what)
    {
        fault_ = Located(at, what);
        return E_FAIL;
    }

    const FedText& fed_;
    FedLines lines_;
    const EventFound& found_;
    ISAXLocator* locator_ = nullptr;  // the reader's, valid while it parses
    bool inRoot_ = false;
    size_t depth_ = 0;  // elements open below the root
    bool inEvents_ = false;
    size_t eventStart_ = npos;  // the open event's '<'
    size_t eventDepth_ = 0;
    size_t events_ = 0;  // handed over
    size_t cursor_ = 0;  // past the last tag seen outside the events
    std::optional<std::wstring> fault_;
    bool stopped_ = false;
    std::exception_ptr exception_;
};

}  // namespace

std::optional<std::wstring> ScanEvents(std::wstring_view text, const EventFound& found)
{
    if (const auto at = TooLongForSaxMessages(text)) {
        return Describe(Advance(TextPosition(), text, 0, *at)) +
               L": a name or a namespace value longer than the XML reader takes";
    }
    Microsoft::WRL::ComPtr<ISAXXMLReader> reader;
    if (const HRESULT result = NewSaxReader(reader); FAILED(result)) {
        throw HostError(ExitCode::RunFailed,
                        L"cannot create the XML parser (MSXML 3.0): " + DescribeError(static_cast<DWORD>(result)));
    }
    const FedText fed(text, true);
    const auto scanner = Adopt(new EventScanner(fed, found));
    const auto errors = Adopt(new FirstXmlFault());
    const auto stream = Adopt(new FedStream(fed, kRootStart, kRootEnd));
    const HRESULT result = ParseWithSax(reader.Get(), stream.Get(), scanner.Get(), errors.Get());
    scanner->RethrowIfFailed();
    if (scanner->Fault() || scanner->Stopped()) {
        return scanner->Fault();
    }
    if (errors->Fault()) {
        return scanner->ParserFault(*errors->Fault(), stream->Served());
    }
    if (FAILED(result)) {
        return scanner->ParserFault(
            XmlFault{0, 0, L"the parser stopped with " + DescribeError(static_cast<DWORD>(result))}, stream->Served());
    }
    return std::nullopt;
}

}  // namespace zeph::host
