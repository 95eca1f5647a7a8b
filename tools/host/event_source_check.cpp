#include "event_source_check.h"

#include "console.h"
#include "event_log_dll.h"
#include "provider/metric_names.h"
#include "win/module_path.h"
#include "win/unique_resource.h"

#include <iterator>

namespace zeph::host {

namespace {

constexpr wchar_t kReportsNothing[] = L": the metric will report nothing";
constexpr wchar_t kFixChannel[] = L"; fix its <channel> (wevtutil el lists this machine's channels)";
constexpr wchar_t kFixQuery[] =
    L"; fix its <query>, an XPath filter of events such as *[System[Provider[@Name='Application Error']]] (* takes "
    L"them all)";
// A channel no event log has (the name is not even valid), to tell one that answers.
constexpr wchar_t kNoSuchChannel[] = L"zeph-host: no such channel";
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

// "'eventlog|eventlog_appcrash' and 'eventlog|eventlog_quillon'"
std::wstring KnownNames()
{
    std::wstring names;
    for (size_t i = 0; i < std::size(kMetricNames); ++i) {
        names += (i == 0                             ? L"'"
                  : i + 1 == std::size(kMetricNames) ? L" and '"
                                                     : L", '") +
                 std::wstring(kMetricNames[i]) + L"'";
    }
    return names;
}

bool RunningUnderWine()
{
    const HMODULE ntdll = ::GetModuleHandleW(L"ntdll.dll");
    return ntdll != nullptr && ::GetProcAddress(ntdll, "wine_get_version") != nullptr;
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
    if (openChannelConfig_ == nullptr || query_ == nullptr || next_ == nullptr || close_ == nullptr) {
        return;
    }
    // Wine's stub opens any channel; an event log that answers refuses this one.
    const EVT_HANDLE config = openChannelConfig_(nullptr, kNoSuchChannel, 0);
    const DWORD error = ::GetLastError();
    Close(config);
    answers_ = config == nullptr && !Unanswered(error);
}

void EventSourceCheck::Close(EVT_HANDLE handle) const
{
    if (handle != nullptr) {
        close_(handle);
    }
}

std::vector<std::wstring> EventSourceCheck::Check(const MetricConfig& metric, bool taken)
{
    const std::wstring subject = L"metric '" + metric.name + L"': ";
    if (!taken) {
        return {subject + L"the provider has no metric of this name and took nothing" + kReportsNothing +
                L"; the names it knows are " + KnownNames()};
    }
    if (!answers_) {
        unanswered_ = true;
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

std::optional<std::wstring> EventSourceCheck::UnansweredNote() const
{
    if (!unanswered_) {
        return std::nullopt;
    }
    const std::wstring path = module_ ? ModuleFilePath(module_.get()) : std::wstring(L"wevtapi.dll");
    const wchar_t* what = RunningUnderWine() ? L" is Wine's own, a stub that delivers no events"
                                             : L" does not answer as an event log does";
    return L"the event log in use (" + path + L")" + what +
           L": the metrics will report no events, and their channels and queries go unchecked; run with the "
           L"simulated event log (the wevtapi.dll of the build's bin folder) beside the provider DLL, as "
           L"build/zeph-host does";
}

std::vector<std::wstring> EventSourceCheck::CheckChannel(const std::wstring& channel)
{
    const EVT_HANDLE config = openChannelConfig_(nullptr, channel.c_str(), 0);
    const DWORD error = ::GetLastError();
    if (config != nullptr) {
        Close(config);
        return {};
    }
    if (error == ERROR_EVT_CHANNEL_NOT_FOUND) {
        return {L"channel '" + channel + L"' does not exist on this machine" + kReportsNothing + kFixChannel};
    }
    if (Unanswered(error)) {
        unanswered_ = true;
        return {};
    }
    return {L"channel '" + channel + L"' cannot be opened: " + DescribeError(error) +
            L": the metric may report nothing"};
}

std::vector<std::wstring> EventSourceCheck::CheckQuery(const std::wstring& channel, const std::wstring& query)
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
    if (Unanswered(error)) {
        unanswered_ = true;
        return {};
    }
    if (error == ERROR_SUCCESS || error == ERROR_NO_MORE_ITEMS || error == ERROR_TIMEOUT) {
        return {};
    }
    if (error == ERROR_EVT_INVALID_QUERY) {
        return {L"the event log rejects the query '" + query + L"': " + DescribeError(error) + kReportsNothing +
                kFixQuery};
    }
    return {L"the query '" + query + L"': " + DescribeError(error) + kReportsNothing};
}

}  // namespace zeph::host
