// Windows events in the event schema, as Event Viewer ("XML View"), `wevtutil qe /f:xml`
// and `evtxexport -f xml` print them:
//
//   <Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event">
//     <System>
//       <Provider Name="Application Error"/> <EventID Qualifiers="0">1000</EventID>
//       <TimeCreated SystemTime="2024-05-14T07:58:41.2071234Z"/> <Channel>Application</Channel> ...
//     </System>
//     <EventData><Data>ledger.exe</Data><Data Name="...">...</Data> ...</EventData>  (or <UserData>)
//     <RenderingInfo Culture="en-US"><Message>...</Message></RenderingInfo>       (optional)
//   </Event>
//
// Elements are matched by local name, with or without the namespace. Insertion strings
// keep their text exactly as written: blanks, line ends, entities and CDATA resolved.
#pragma once

#include "xml_file.h"

#include <windows.h>

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace zeph::host {

struct EventXml {
    std::wstring channel;
    std::wstring publisher;
    USHORT id = 0;
    ULONGLONG timeCreated = 0;  // FILETIME, 100 ns units
    std::vector<std::wstring> insertions;
    std::optional<std::wstring> renderedMessage;  // RenderingInfo/Message
};

// What is wrong with one event, without its position.
class EventXmlError : public std::runtime_error {
public:
    explicit EventXmlError(std::wstring what) : std::runtime_error("event xml"), what_(std::move(what)) {}
    const std::wstring& What() const noexcept { return what_; }

private:
    std::wstring what_;
};

// Throws EventXmlError naming the missing or bad part.
EventXml ReadEventElement(IXMLDOMElement* event);

// The events of a file's text, in order. It may hold one <Event>, an <Events> element
// around several, or several <Event> elements with no root; a first line that is not
// markup (evtxexport's version banner) is skipped. Reading stops at the first malformed
// event: `events` holds those before it, `fault` says which one and where.
struct EventFile {
    std::vector<EventXml> events;
    std::optional<std::wstring> fault;  // "event 3 (line 41, column 7): ..."
};
EventFile ParseEventText(std::wstring_view text);

// Reads and parses a file; throws HostError(ScenarioInvalid) when it cannot be read.
EventFile LoadEventFile(const std::wstring& path);

// "2024-05-14T07:58:41.2071234Z" with up to 9 fraction digits (truncated to 100 ns).
std::optional<ULONGLONG> ParseSystemTime(std::wstring_view text);

}  // namespace zeph::host
