// CMetric: the base of every metric. It keeps the metric's name, the channel
// and query it watches, its event log subscription and the host's logger and
// context, and routes each delivered event to the subclass's ParseEventLog.
//
// Ownership: holds one reference to the logger and one to the host context
// (either may be null) for its whole life.
// Threads: the constructor, Subscribe, Unsubscribe, CollectMetric and the
// destructor run on the host's thread; ParseEventLog runs on event delivery
// threads. The base takes no lock: subclasses guard what ParseEventLog and
// CollectMetric share with a lock of their own.
// Teardown: a subclass that has state ParseEventLog touches calls
// StopDeliveries() first thing in its destructor, so no delivery runs on a
// half-destroyed object.
#pragma once

#include "metric/event_log_subscription.h"

#include <agent.h>
#include "win/xml_dom.h"
#include <wrl/client.h>

#include <string>

namespace zeph {

class CMetric {
public:
    CMetric(const wchar_t* name, IProviderLogger* logger, IProviderHostContext* hostContext);
    virtual ~CMetric();
    CMetric(const CMetric&) = delete;
    CMetric& operator=(const CMetric&) = delete;

    // Reads the child elements "channel" and "query" of config and subscribes to
    // future events. Returns the first failing read's HRESULT, else S_OK: a
    // channel or query the event log rejects leaves the metric without a
    // subscription and is not an error here.
    [[nodiscard]] virtual HRESULT Subscribe(IXMLDOMElement* config);

    // Closes the subscription, if any. Always S_OK.
    [[nodiscard]] virtual HRESULT Unsubscribe();

    // Writes the metric's values into sink. context is the host's query context.
    [[nodiscard]] virtual HRESULT CollectMetric(IMetricValueSink* sink, LONG_PTR context) = 0;

    const std::wstring& Name() const noexcept { return name_; }
    const std::wstring& Channel() const noexcept { return channel_; }
    const std::wstring& Query() const noexcept { return query_; }
    EVT_HANDLE SubscriptionHandle() const noexcept { return subscription_.Handle(); }

protected:
    // One delivered event; the handle is valid only during the call.
    virtual void ParseEventLog(EVT_HANDLE event) = 0;

    // Ends deliveries and waits for one in flight; see the header comment.
    void StopDeliveries() noexcept { subscription_.Close(); }

    // Reads one property (a child element's text) into target. Returns S_OK,
    // 0x80070490 when the element is missing, or the failure of the lookup;
    // target is untouched on failure.
    [[nodiscard]] HRESULT GetConfigProperty(IXMLDOMElement* config, const wchar_t* property, std::wstring& target);

    IProviderLogger* Logger() const noexcept { return logger_.Get(); }

private:
    std::wstring name_;
    std::wstring channel_;
    std::wstring query_;
    EventLogSubscription subscription_;
    Microsoft::WRL::ComPtr<IProviderLogger> logger_;
    Microsoft::WRL::ComPtr<IProviderHostContext> hostContext_;
};

}  // namespace zeph
