// A scenario: timed steps replayed against the simulated event log.
//
//   <scenario>
//     <event channel="Application" publisher="Application Error" id="1000"
//            time="2024-05-14T08:02:11.418Z" formattable="true">message lines</event>
//     <append file="C:\...\drovesvc.log" encoding="utf-16le">log lines</append>
//     <pause ms="500"/>
//     <query/>
//     <Event xmlns="http://schemas.microsoft.com/win/2004/08/events/event">...</Event>
//     <replay file="Application.xml"/>
//   </scenario>
//
// <Event> is a Windows event in the event schema (see event_xml.h), written with its
// insertion strings exactly as they stand; <replay> writes every event of a file of them
// (a relative path is taken from the scenario's folder).
//
// Text blocks (event messages, appended lines) are written as indented lines:
// the line break after the opening tag and the indentation before the closing
// tag go, the indentation common to all lines goes, trailing blanks go. A
// message joins its lines with CR LF; appended text ends every line with CR LF.
#pragma once

#include "event_xml.h"

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace zeph::host {

struct EventStep {
    std::wstring channel;
    std::wstring publisher;
    USHORT id = 0;
    std::optional<ULONGLONG> time;  // FILETIME; none: the moment of writing
    std::wstring message;
    bool formattable = true;
};

struct AppendStep {
    std::wstring file;  // environment variables expanded when replayed
    bool utf8 = false;  // default UTF-16LE without byte-order mark, as the layering service writes
    std::wstring text;
};

struct PauseStep {
    DWORD milliseconds = 0;
};

struct QueryStep {};

struct EventXmlStep {
    EventXml event;
};

struct ReplayStep {
    std::wstring file;
    EventFile events;  // read by ReadEventFiles, before the run
};

using ScenarioStep = std::variant<EventStep, AppendStep, PauseStep, QueryStep, EventXmlStep, ReplayStep>;

struct Scenario {
    std::vector<ScenarioStep> steps;

    // The channels the events go to, each once, in order of first use.
    std::vector<std::wstring> Channels() const;
};

// Throws HostError(ScenarioInvalid) with the step's number for anything malformed.
Scenario LoadScenario(const std::wstring& path);

// Reads the file of every replay step into it, so that a file that cannot be read is
// refused before the provider is created. Throws HostError(ScenarioInvalid) for such a
// file; a malformed one keeps its fault in the step, to be reported after the events
// before it are replayed.
void ReadEventFiles(Scenario& scenario);

// The lines of an indented text block (see above).
std::vector<std::wstring> BlockLines(std::wstring_view text);

// "2024-05-14T08:02:11.418Z" (1 to 7 fraction digits, or none; a space may
// stand for the T) as a FILETIME; nothing for anything else.
std::optional<ULONGLONG> ParseUtcTime(std::wstring_view text);

}  // namespace zeph::host
