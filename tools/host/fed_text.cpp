#include "fed_text.h"

#include "support/text.h"
#include "xml_parse_fault.h"

#include <algorithm>
#include <cstring>
#include <cwctype>

namespace zeph::host {

namespace {

constexpr size_t npos = std::wstring_view::npos;

bool IsDeclaration(std::wstring_view text, size_t at)
{
    return text.substr(at).starts_with(L"<?xml") && at + 5 < text.size() &&
           (std::iswspace(text[at + 5]) || text[at + 5] == L'?');
}

size_t HeadEndOf(std::wstring_view text, bool bannerLine)
{
    if (!bannerLine) {
        // A declaration stands only at the very start.
        const size_t close = IsDeclaration(text, 0) ? text.find(L"?>") : npos;
        return close == npos ? 0 : close + 2;
    }
    // evtxexport's first line is its name and version; an XML declaration may follow.
    size_t end = text.find_first_not_of(L" \t\r\n");
    if (end != npos && text[end] != L'<') {
        end = text.find(L'\n', end);
    }
    if (end == npos) {
        return text.size();
    }
    const size_t declaration = text.find_first_not_of(L" \t\r\n", end);
    if (declaration != npos && IsDeclaration(text, declaration)) {
        const size_t close = text.find(L"?>", declaration);
        return close == npos ? end : close + 2;
    }
    return end;
}

}  // namespace

FedText::FedText(std::wstring_view text, bool bannerLine) : text_(text), headEnd_(HeadEndOf(text, bannerLine)) {}

size_t FedText::Serve(size_t i, std::string& out) const
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

size_t FedText::TagEnd(size_t start) const
{
    wchar_t quote = 0;
    for (size_t i = start; i < text_.size(); ++i) {
        if (quote != 0) {
            quote = text_[i] == quote ? 0 : quote;
        } else if (text_[i] == L'"' || text_[i] == L'\'') {
            quote = text_[i];
        } else if (text_[i] == L'>') {
            return i + 1;
        }
    }
    return text_.size();
}

size_t FedLines::Start(size_t line)
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

size_t FedLines::TagStart(long line)
{
    const std::wstring_view text = fed_.Text();
    const size_t start = Start(static_cast<size_t>(std::max(line, 1L)));
    const size_t tag = start < text.size() && text[start] == L'<' ? start : text.rfind(L'<', start);
    return tag == npos ? start : tag;
}

std::wstring InTextLines(const FedText& fed, const std::wstring& message)
{
    const std::wstring_view text = fed.Text();
    return RenumberLines(message, [&](size_t line) {
        const size_t start = FedLines(fed).Start(line);
        return static_cast<size_t>(std::count(text.begin(), text.begin() + static_cast<std::ptrdiff_t>(start), L'\n')) +
               1;
    });
}

STDMETHODIMP FedStream::Read(void* buffer, ULONG size, ULONG* read)
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
                    pending_ = suffix_;
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

}  // namespace zeph::host
