// Where and why a file is not well-formed XML, as one line: "at line 2, column 22:
// <reason>". Wine's DOMDocument reports every parse failure as "error" at line 0 and
// writes the parser's own message to standard error, so the host reads its files
// first with msxml3's SAX reader, whose error handler gets the line, the column and
// the reason, and gives the DOM only well-formed text.
#pragma once

#include <optional>
#include <string>

namespace zeph::host {

struct XmlFault {
    long line = 0;
    long column = 0;
    std::wstring reason;  // one line

    std::wstring Text() const;  // "at line 2, column 22: reason"
};

// Nothing when the bytes are well-formed XML (or no SAX reader can be created:
// the DOM then reports the fault itself).
std::optional<XmlFault> XmlParseFault(const std::string& bytes);

}  // namespace zeph::host
