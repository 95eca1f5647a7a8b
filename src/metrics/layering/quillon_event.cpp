#include "layering/quillon_event.h"

#include <string_view>

namespace zeph {

namespace {

struct MessageRule {
    std::wstring_view prefix;
    std::wstring_view alsoContains;  // empty: the prefix decides alone
    QuillonEventKind kind;
};

// Tried in this order; the first that holds decides. A message that meets a
// prefix but not its second condition goes on to the later rules.
constexpr MessageRule kMessageRules[] = {
    {L"User is logging in", {}, QuillonEventKind::LogOn},
    {L"User is logging off", {}, QuillonEventKind::LogOff},
    {L"Response 200 from Manager", {}, QuillonEventKind::LogOnResponse},
    {L"Last volume loaded", {}, QuillonEventKind::AllDone},
    {L"New volume event (mounted):", L"(VolumeType 2)", QuillonEventKind::VolumesReady},
    {L"User is logging out", {}, QuillonEventKind::LogOff},
    {L"Response received from Manager", L"LOGIN", QuillonEventKind::LogOnResponse},
    {L"New volume finished processing", L"VolumeType: 2", QuillonEventKind::VolumesReady},
    {L"All volumes finished processing", {}, QuillonEventKind::AllDone},
};

}  // namespace

QuillonEventKind ClassifyEventMessage(const std::wstring& message)
{
    const std::wstring_view text(message);
    for (const MessageRule& rule : kMessageRules) {
        if (text.starts_with(rule.prefix) &&
            (rule.alsoContains.empty() || text.find(rule.alsoContains) != std::wstring_view::npos)) {
            return rule.kind;
        }
    }
    return QuillonEventKind::Other;
}

}  // namespace zeph
