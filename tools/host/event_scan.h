// Where the <Event> elements of an event file's text are, found with msxml3's SAX
// reader; what each one holds is left to the DOM (event_xml.cpp). The text may hold
// one <Event>, an <Events> element around several, or several <Event> elements with
// no root; a first line that is not markup (evtxexport's version banner) and an XML
// declaration are passed over.
// Failure: HostError(RunFailed) without a SAX reader; allocation failures throw
// std::bad_alloc. Threads: the caller's, with COM initialised.
#pragma once

#include "xml_parse_fault.h"

#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace zeph::host {

// Called with each <Event> in turn: its number (from 1) and its offsets in the text,
// from its '<' to the end of its end tag. Returns false to stop the reading.
using EventFound = std::function<bool(size_t number, size_t start, size_t end)>;

// Nothing when every event was handed over (or EventFound stopped the reading);
// otherwise the fault that ended it, naming the event or the gap between events and
// where it is: "event 3 (line 41, column 7): <Event> is not closed before the end of the file";
// or where a text too long for the reader's messages is (support/sax_reader.h), before any event.
std::optional<std::wstring> ScanEvents(std::wstring_view text, const EventFound& found);

}  // namespace zeph::host
