#include "event_source_check.h"

#include "console.h"
#include "event_log_dll.h"
#include "win/unique_resource.h"

#include <optional>

namespace zeph::host {

namespace {

constexpr wchar_t kReportsNothing[] = L": the metric will report nothing";
// EvtNext's wait for the one event the query check asks for.
constexpr DWORD kQueryWaitMs = 5000;

// The text of a child element, read as the provider reads it; nothing when it is missing.
std::optional<std::wstring> ChildText(IXMLDOMElement* element, const wchar_t* name)
{
    const unique_bstr path(::SysAllocString(name));
    ComPtr<IXMLDOMNode> node;
    if (!path || element->selectSingleNode(path.get(), &node) != S_OK || !node) {
        return std::nullopt;
    }
    unique_bstr text;
    if (FAILED(node->get_text(text.put()))) {
        return std::nullopt;
    }
    return text ? std::wstring(text.get(), ::SysStringLen(text.get())) : std::wstring();
}

// The event log of this process cannot answer (Wine's own stub wevtapi.dll).
bool Unanswered(DWORD error)
{
    return error == ERROR_CALL_NOT_IMPLEMENTED || error == ERROR_NOT_SUPPORTED;
}

}  // namespace

EventSourceCheck::EventSourceCheck() : module_(LoadEventLogDll())
{
    if (!module_) {
        return;  // a null module would look the names up in the executable
    }
    openChannelConfig_ = LookupExport<decltype(openChannelConfig_)>(module_, "EvtOpenChannelConfig");
    query_ = LookupExport<decltype(query_)>(module_, "EvtQuery");
    next_ = LookupExport<decltype(next_)>(module_, "EvtNext");
    close_ = LookupExport<decltype(close_)>(module_, "EvtClose");
}

void EventSourceCheck::Close(EVT_HANDLE handle) const
{
    if (handle != nullptr) {
        close_(handle);
    }
}

std::vector<std::wstring> EventSourceCheck::Check(const MetricConfig& metric, bool taken) const
{
    const std::wstring subject = L"metric '" + metric.name + L"': ";
    if (!taken) {
        return {subject + L"the provider has no metric of this name and took nothing" + kReportsNothing};
    }
    if (openChannelConfig_ == nullptr || query_ == nullptr || next_ == nullptr || close_ == nullptr) {
        return {};
    }
    // A missing child is the provider's to refuse.
    const auto channel = ChildText(metric.element.Get(), L"channel");
    if (!channel) {
        return {};
    }
    std::vector<std::wstring> warnings = CheckChannel(*channel);
    const auto query = ChildText(metric.element.Get(), L"query");
    if (warnings.empty() && query) {
        warnings = CheckQuery(*channel, *query);
    }
    for (std::wstring& warning : warnings) {
        warning = subject + warning;
    }
    return warnings;
}

std::vector<std::wstring> EventSourceCheck::CheckChannel(const std::wstring& channel) const
{
    const EVT_HANDLE config = openChannelConfig_(nullptr, channel.c_str(), 0);
    const DWORD error = ::GetLastError();
    if (config != nullptr) {
        Close(config);
        return {};
    }
    if (error == ERROR_EVT_CHANNEL_NOT_FOUND) {
        return {L"channel '" + channel + L"' does not exist on this machine" + kReportsNothing};
    }
    if (Unanswered(error)) {
        return {};
    }
    return {L"channel '" + channel + L"' cannot be opened: " + DescribeError(error) +
            L": the metric may report nothing"};
}

std::vector<std::wstring> EventSourceCheck::CheckQuery(const std::wstring& channel, const std::wstring& query) const
{
    const EVT_HANDLE results =
        query_(nullptr, channel.c_str(), query.c_str(), EvtQueryChannelPath | EvtQueryReverseDirection);
    DWORD error = ::GetLastError();
    if (results != nullptr) {
        EVT_HANDLE event = nullptr;
        DWORD returned = 0;
        if (next_(results, 1, &event, kQueryWaitMs, 0, &returned)) {
            if (returned > 0) {
                Close(event);
            }
            error = ERROR_SUCCESS;
        } else {
            error = ::GetLastError();
        }
        Close(results);
    }
    if (error == ERROR_SUCCESS || error == ERROR_NO_MORE_ITEMS || error == ERROR_TIMEOUT || Unanswered(error)) {
        return {};
    }
    const std::wstring what = error == ERROR_EVT_INVALID_QUERY ? L"the event log rejects the query '" : L"the query '";
    return {what + query + L"': " + DescribeError(error) + kReportsNothing};
}

}  // namespace zeph::host
