// The part of the event query language subscriptions accept:
//   NULL or "*"                       every event
//   *[System[ <expr> ]]               with <expr> built from
//       Provider[@Name='X']           provider name, case-insensitive, ' or " quotes
//       EventID=N
//       ( <expr> ), <expr> and <expr>, <expr> or <expr>   (and binds tighter)
// Anything else is rejected, as the real service rejects what it cannot parse.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace evtsim {

class QueryFilter {
public:
    struct Node {
        enum class Kind { And, Or, Provider, EventId };
        Kind kind = Kind::And;
        std::wstring providerKey;  // folded
        std::uint32_t eventId = 0;
        std::vector<Node> children;
    };

    // nullopt when the query is not understood (the caller reports ERROR_EVT_INVALID_QUERY).
    static std::optional<QueryFilter> Parse(const wchar_t* query);

    // publisherKey is the folded provider name. The EventID test uses the written id
    // even for events flagged EVT_SIM_NO_EVENT_ID: that flag only affects rendering.
    bool Matches(std::wstring_view publisherKey, USHORT eventId) const;

private:
    std::optional<Node> root_;  // empty: every event matches
};

}  // namespace evtsim
