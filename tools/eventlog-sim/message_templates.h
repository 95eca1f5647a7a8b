// The message templates of the publishers the simulated log knows, by publisher
// and event id, as a registered publisher's message table holds them; and the
// expansion of a template with an event's insertion strings.
#pragma once

#include <windows.h>

#include <optional>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

namespace evtsim {

// "Application Error" event 1000 in its fifteen-field English form (lines joined by CR LF).
extern const wchar_t kApplicationErrorTemplate[];

class MessageTemplates {
public:
    MessageTemplates();  // with the built-in templates

    // An empty template is one (an event whose message is empty); removing is not offered.
    void Set(const std::wstring& publisherKey, USHORT eventId, std::wstring text);
    std::optional<std::wstring> Find(const std::wstring& publisherKey, USHORT eventId) const;
    bool KnowsPublisher(const std::wstring& publisherKey) const;

private:
    mutable std::shared_mutex mutex_;
    std::unordered_map<std::wstring, std::unordered_map<USHORT, std::wstring>> byPublisher_;  // folded names
};

MessageTemplates& Templates();

// Replaces %1 to %99 by the insertion strings and %% by %. An insertion the event does
// not carry stays as written ("%14") and the result is ERROR_EVT_UNRESOLVED_VALUE_INSERT;
// a parameter reference (%%n) stays as written and gives ERROR_EVT_UNRESOLVED_PARAMETER_INSERT,
// as no parameter strings are held. The text is complete either way.
DWORD ExpandTemplate(const std::wstring& text, const std::vector<std::wstring>& insertions, std::wstring* message);

}  // namespace evtsim
