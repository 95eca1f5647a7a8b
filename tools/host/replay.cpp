#include "replay.h"

#include "console.h"
#include "exit_codes.h"

#include <algorithm>

namespace zeph::host {

std::vector<std::wstring> SubscribedChannels(const Configuration& configuration)
{
    std::vector<std::wstring> channels;
    for (const MetricConfig& metric : configuration.metrics) {
        for (const auto& child : ChildElements(metric.element.Get())) {
            if (TagName(child.Get()) != L"channel") {
                continue;
            }
            std::wstring channel = ElementText(child.Get());
            const size_t first = channel.find_first_not_of(L" \t\r\n");
            channel = first == std::wstring::npos
                          ? std::wstring()
                          : channel.substr(first, channel.find_last_not_of(L" \t\r\n") - first + 1);
            if (!channel.empty() && std::find(channels.begin(), channels.end(), channel) == channels.end()) {
                channels.push_back(channel);
            }
        }
    }
    return channels;
}

bool EventReplayer::Subscribed(const std::wstring& channel) const
{
    // Channel names compare without regard to case, as the event log compares them.
    return std::any_of(channels_.begin(), channels_.end(), [&](const std::wstring& subscribed) {
        return ::CompareStringOrdinal(subscribed.c_str(), -1, channel.c_str(), -1, TRUE) == CSTR_EQUAL;
    });
}

bool EventReplayer::Write(const EventXml& event) const
{
    if (!Subscribed(event.channel)) {
        return false;
    }
    std::vector<LPCWSTR> insertions;
    insertions.reserve(event.insertions.size());
    for (const std::wstring& text : event.insertions) {
        insertions.push_back(text.c_str());
    }
    const EVT_SIM_EVENT_DATA data{event.channel.c_str(),
                                  event.publisher.c_str(),
                                  event.id,
                                  event.timeCreated,
                                  static_cast<DWORD>(insertions.size()),
                                  insertions.data(),
                                  event.renderedMessage ? event.renderedMessage->c_str() : nullptr,
                                  0};
    const DWORD result = simulator_.WriteEventData(data);
    if (result != ERROR_SUCCESS) {
        throw HostError(ExitCode::ScenarioFailed, L"the simulated event log refused event " +
                                                      std::to_wstring(event.id) + L" from '" + event.publisher +
                                                      L"': " + DescribeError(result));
    }
    return true;
}

}  // namespace zeph::host
