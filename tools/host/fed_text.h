// A text as zeph-host hands it to msxml3's SAX reader when it must know where in the
// text the reader is. Every tag begins a line of its own (a line break goes before
// each '<'), so the line the reader names for a start or end tag, which both msxml3
// and Wine's report exactly, tells where in the text that tag is; the reader's columns
// are not used (Wine's count UTF-8 bytes, from the start of its buffer rather than of
// the line, and at a fault they are those of the last part it reported). The head (an
// XML declaration, and for event files a first line that is not markup, evtxexport's
// version banner) is read as blanks, its line ends kept, and each CR LF or lone CR as
// one line feed, as the parser counts lines.
// Ownership: FedLines and FedStream refer to the FedText, which refers to the text;
// each must outlive those made from it. Threads: the caller's.
#pragma once

#include "support/ref_counted_object.h"
#include "support/sax_reader.h"

#include <cstddef>
#include <string>
#include <string_view>

namespace zeph::host {

class FedText {
public:
    // bannerLine: a first line that is not markup belongs to the head.
    FedText(std::wstring_view text, bool bannerLine);

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
    size_t Serve(size_t i, std::string& out) const;

    // Just past the tag that starts at start ('>' may stand in attribute values); the
    // text's size when it does not end.
    size_t TagEnd(size_t start) const;

private:
    std::wstring_view text_;
    size_t headEnd_;
};

// Where each of the reader's lines begins in the text, walked forward only.
class FedLines {
public:
    explicit FedLines(const FedText& fed) : fed_(fed) {}

    // The offset at which the reader's line (1 for the first) begins; the text's size
    // for the lines of what follows the text.
    size_t Start(size_t line);

    // The '<' of the tag the reader reports at `line`: the reader names the line that
    // holds the tag's end; that line begins with the tag, or (a tag with a line break
    // inside) lies within it. Lines asked for must not go backwards.
    size_t TagStart(long line);

private:
    const FedText& fed_;
    size_t line_ = 1;
    size_t start_ = 0;
    size_t next_ = 0;           // the next offset to look at
    bool brokeBefore_ = false;  // the line break before text[next_] is counted
};

// The parser's message with each "line N" in it (the reader's lines) turned into the
// text's line.
std::wstring InTextLines(const FedText& fed, const std::wstring& message);

// The reader's input: prefix, the fed text, suffix. A reader reads until a read comes
// back short, so every read but the last is filled.
class FedStream final : public RefCountedObject<IStream, ISequentialStream> {
public:
    FedStream(const FedText& fed, std::string prefix, std::string suffix)
        : fed_(fed), pending_(std::move(prefix)), suffix_(std::move(suffix))
    {
    }

    size_t Served() const { return next_; }  // how much of the text the reader has been given

    STDMETHODIMP Read(void* buffer, ULONG size, ULONG* read) override;
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
    std::string suffix_;
    bool ended_ = false;
};

}  // namespace zeph::host
