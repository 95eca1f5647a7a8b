#include "event_scan.h"

#include "console.h"
#include "exit_codes.h"
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

// The text as the reader reads it. Every tag begins a line of its own (a line break
// goes before each '<'), so the line the reader names for a start or end tag, which
// both msxml3 and Wine's report exactly, tells where in the text that tag is; the
// columns are not used (Wine's count UTF-8 bytes, from the start of its buffer rather
// than of the line). The head (banner, XML declaration) is read as blanks, its line
// ends kept, and each CR LF or lone CR as one line feed, as the parser counts lines.
class FedText {
public:
    explicit FedText(std::wstring_view text) : text_(text), headEnd_(HeadEnd(text)) {}

    std::wstring_view Text() const { return text_; }
    size_t HeadEnd() const { return headEnd_; }

    // A line of the reader's begins at text[i] (at a '<') ...
    bool BreakBefore(size_t i) const { return i >= headEnd_ && text_[i] == L'<'; }
    // ... or right after it (a line end).
    bool BreakAfter(size_t i) const
    {
        return text_[i] == L'\n' ||
               (i >= headEnd_ && text_[i] == L'\r' && (i + 1 == text_.size() || text_[i + 1] != L'\n'));
    }

    // Appends what the reader gets for text[i] (as UTF-8) and returns the next i.
    size_t Serve(size_t i, std::string& out) const
    {
        const wchar_t c = text_[i];
        if (i < headEnd_) {
            out += c == L'\n' ? '\n' : ' ';
            return i + 1;
        }
        if (c == L'<') {
            out += "\n<";
            return i + 1;
        }
        if (c == L'\r') {
            out += BreakAfter(i) ? '\n' : ' ';
            return i + 1;
        }
        // A surrogate pair is one character.
        const bool pair =
            c >= 0xD800 && c < 0xDC00 && i + 1 < text_.size() && text_[i + 1] >= 0xDC00 && text_[i + 1] < 0xE000;
        out += ToUtf8(text_.substr(i, pair ? 2 : 1));
        return i + (pair ? 2 : 1);
    }

private:
    // evtxexport's first line is its name and version; an XML declaration may follow.
    static size_t HeadEnd(std::wstring_view text)
    {
        size_t end = text.find_first_not_of(L" \t\r\n");
        if (end != npos && text[end] != L'<') {
            end = text.find(L'\n', end);
        }
        if (end == npos) {
            return text.size();
        }
        const size_t declaration = text.find_first_not_of(L" \t\r\n", end);
        if (declaration != npos && text.substr(declaration).starts_with(L"<?xml") && declaration + 5 < text.size() &&
            (std::iswspace(text[declaration + 5]) || text[declaration + 5] == L'?')) {
            const size_t close = text.find(L"?>", declaration);
            return close == npos ? end : close + 2;
        }
        return end;
    }

    std::wstring_view text_;
    size_t headEnd_;
};

// Where each of the reader's lines begins in the text, walked forward only.
class FedLines {
public:
    explicit FedLines(const FedText& fed) : fed_(fed) {}

    // The offset at which the reader's line (1 for the first) begins; the text's size
    // for the lines of what follows the text.
    size_t Start(size_t line)
    {
        const std::wstring_view text = fed_.Text();
        while (line_ < line && next_ < text.size()) {
            if (!brokeBefore_ && fed_.BreakBefore(next_)) {
                brokeBefore_ = true;
                ++line_;
                start_ = next_;
                continue;
            }
            brokeBefore_ = false;
            if (fed_.BreakAfter(next_)) {
                ++line_;
                start_ = next_ + 1;
            }
            ++next_;
        }
        return line_ < line ? text.size() : start_;
    }

private:
    const FedText& fed_;
    size_t line_ = 1;
    size_t start_ = 0;
    size_t next_ = 0;           // the next offset to look at
    bool brokeBefore_ = false;  // the line break before text[next_] is counted
};

// The reader's input: kRootStart, the fed text, kRootEnd. A reader reads until a read
// comes back short, so every read but the last is filled.
class FedStream final : public RefCountedObject<IStream, ISequentialStream> {
public:
    explicit FedStream(const FedText& fed) : fed_(fed), pending_(kRootStart) {}

    size_t Served() const { return next_; }  // how much of the text the reader has been given

    STDMETHODIMP Read(void* buffer, ULONG size, ULONG* read) override
    {
        try {
            auto* out = static_cast<char*>(buffer);
            ULONG done = 0;
            const std::wstring_view text = fed_.Text();
            while (done < size) {
                // Most of a file is plain ASCII, copied as it is.
                if (taken_ == pending_.size() && next_ >= fed_.HeadEnd() && next_ < text.size() && text[next_] < 0x80 &&
                    text[next_] != L'<' && text[next_] != L'\r') {
                    out[done++] = static_cast<char>(text[next_++]);
                    continue;
                }
                if (taken_ == pending_.size()) {
                    pending_.clear();
                    taken_ = 0;
                    if (next_ < text.size()) {
                        next_ = fed_.Serve(next_, pending_);
                    } else if (!ended_) {
                        pending_ = kRootEnd;
                        ended_ = true;
                    } else {
                        break;
                    }
                }
                const size_t count = std::min<size_t>(size - done, pending_.size() - taken_);
                std::memcpy(out + done, pending_.data() + taken_, count);
                done += static_cast<ULONG>(count);
                taken_ += count;
            }
            if (read != nullptr) {
                *read = done;
            }
            return S_OK;
        } catch (...) {
            return E_OUTOFMEMORY;
        }
    }
    // A reader only reads.
    STDMETHODIMP Write(const void*, ULONG, ULONG*) override { return E_NOTIMPL; }
    STDMETHODIMP Seek(LARGE_INTEGER, DWORD, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    STDMETHODIMP SetSize(ULARGE_INTEGER) override { return E_NOTIMPL; }
    STDMETHODIMP CopyTo(IStream*, ULARGE_INTEGER, ULARGE_INTEGER*, ULARGE_INTEGER*) override { return E_NOTIMPL; }
    STDMETHODIMP Commit(DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Revert() override { return E_NOTIMPL; }
    STDMETHODIMP LockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP UnlockRegion(ULARGE_INTEGER, ULARGE_INTEGER, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Stat(STATSTG*, DWORD) override { return E_NOTIMPL; }
    STDMETHODIMP Clone(IStream**) override { return E_NOTIMPL; }

private:
    const FedText& fed_;
    std::string pending_;  // served, not yet read
    size_t taken_ = 0;
    size_t next_ = 0;  // the next offset of the text to serve
    bool ended_ = false;
};

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
    // event it is told as the event's own text gives it (the DOM reads that text, and its
    // lines and columns are the parser's own); between events, where the markup the reader
    // stopped at begins, in the file's own words where they fit and the parser's otherwise.
    std::wstring ParserFault(const XmlFault& fault, size_t read) const
    {
        const std::wstring_view text = fed_.Text();
        if (eventStart_ != npos) {
            const auto own = XmlParseFault(ToUtf8(text.substr(eventStart_, read - eventStart_)));
            const XmlFault& told = own ? *own : fault;
            return Which() + L": " + NotWellFormedAt(PositionOf(eventStart_), told.line, told.column, told.reason);
        }
        const size_t at = FirstContent(cursor_);
        if (const auto what = OpenMarkup(at)) {
            return Located(at, *what);
        }
        return Which() + L": " + NotWellFormedAt(PositionOf(at), 1, 1, TextLines(fault.reason));
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

    // The '<' of the tag the reader is at: the reader names the line that holds the tag's
    // end; that line begins with the tag, or (a tag with a line break inside) lies within it.
    size_t TagStart()
    {
        int line = 0;
        locator_->getLineNumber(&line);
        const std::wstring_view text = fed_.Text();
        const size_t start = lines_.Start(static_cast<size_t>(std::max(line, 1)));
        const size_t tag = start < text.size() && text[start] == L'<' ? start : text.rfind(L'<', start);
        return tag == npos ? start : tag;
    }

    // Just past the tag that starts at start ('>' may stand in attribute values).
    size_t TagEnd(size_t start) const
    {
        const std::wstring_view text = fed_.Text();
        wchar_t quote = 0;
        for (size_t i = start; i < text.size(); ++i) {
            if (quote != 0) {
                quote = text[i] == quote ? 0 : quote;
            } else if (text[i] == L'"' || text[i] == L'\'') {
                quote = text[i];
            } else if (text[i] == L'>') {
                return i + 1;
            }
        }
        return text.size();
    }

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

    // The parser's text with its "line N" in the reader's lines turned into the text's.
    std::wstring TextLines(const std::wstring& reason) const
    {
        std::wstring result;
        size_t copied = 0;
        for (size_t at = reason.find(L"line "); at != npos; at = reason.find(L"line ", at + 5)) {
            size_t digits = at + 5;
            size_t line = 0;
            for (; digits < reason.size() && std::iswdigit(reason[digits]); ++digits) {
                line = line * 10 + static_cast<size_t>(reason[digits] - L'0');
            }
            if (digits > at + 5) {
                FedLines lines(fed_);
                result += reason.substr(copied, at + 5 - copied);
                result += std::to_wstring(PositionOf(lines.Start(line)).line);
                copied = digits;
            }
        }
        return result + reason.substr(copied);
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

std::wstring NotWellFormedAt(TextPosition start, long line, long column, const std::wstring& reason)
{
    if (line > 1) {
        start.line += static_cast<size_t>(line) - 1;
        start.column = static_cast<size_t>(column > 0 ? column : 1);
    } else if (line == 1 && column > 0) {
        start.column += static_cast<size_t>(column) - 1;
    }
    return L"not well-formed XML at " + Describe(start) + (reason.empty() ? L"" : L": " + reason);
}

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
    const FedText fed(text);
    const auto scanner = Adopt(new EventScanner(fed, found));
    const auto errors = Adopt(new FirstXmlFault());
    const auto stream = Adopt(new FedStream(fed));
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
