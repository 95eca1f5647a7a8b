// CProvider: the COM object the host creates. It keeps the host's logger and
// context, owns the table of subscribed metrics (keyed by the exact name the
// host used), and drives each metric's Subscribe, Unsubscribe and query.
//
// Ownership: one reference each to the logger and the host context (replaced
// by SetHostInterfaces); metrics are shared with nobody but may outlive their
// table entry while a call runs. On destruction the table goes first (each
// metric's destructor ends its subscription), then the context, then the logger.
// Threads: the host calls the provider one call at a time; the provider takes
// no lock of its own. Metrics receive events on the event log's threads and
// guard their own data.
// Errors: no exception leaves a COM method (E_OUTOFMEMORY for an allocation
// failure, E_UNEXPECTED for anything else).
#pragma once

#include "com/type_info.h"
#include "com/unknown_core.h"
#include "metric/metric.h"
#include "provider/metric_factory.h"

#include <agent.h>
#include <zeph_eventlog_h.h>
#include <wrl/client.h>

#include <map>
#include <memory>
#include <string>

namespace zeph {

// The type library that describes the provider's interfaces to late-bound callers.
struct EventLogProviderLib {
    static constexpr const GUID& kLibId = LIBID_EventLogProviderLib;
    static constexpr WORD kMajor = 1;
    static constexpr WORD kMinor = 0;
};

class CProvider : public DispatchImpl<IZephDataProvider, EventLogProviderLib> {
public:
    CProvider();
    virtual ~CProvider();

    using Interfaces = InterfaceList<IZephDataProvider, IDataProviderEx, IDataProvider, IDispatch>;

    // IDataProvider
    STDMETHODIMP SubscribeMetric(BSTR name, IUnknown* config) override;
    STDMETHODIMP UnsubscribeMetric(BSTR name) override;
    STDMETHODIMP UnsubscribeAllMetrics() override;
    STDMETHODIMP Reserved1() override;
    STDMETHODIMP Reserved2() override;
    STDMETHODIMP QueryMetric(BSTR name, LONG_PTR context, IUnknown* sink) override;
    STDMETHODIMP Reserved3() override;
    STDMETHODIMP Reserved4() override;
    STDMETHODIMP Reserved5() override;
    STDMETHODIMP Reserved6() override;
    // IDataProviderEx
    STDMETHODIMP SetHostInterfaces(IProviderLogger* logger, IProviderHostContext* hostContext) override;
    // IZephDataProvider
    STDMETHODIMP QueryMetricToSink(BSTR name, LONG_PTR context, IMetricValueSink* sink) override;

    // Replaces the factory that turns metric names into metrics (an embedding
    // host or a test may bring metrics of its own). Call before subscribing.
    void UseMetricFactory(MetricFactoryFunction factory);

private:
    // Ordinal order of UTF-16 code units: lookups are exact and case-sensitive.
    using MetricTable = std::map<std::wstring, std::shared_ptr<CMetric>>;

    [[nodiscard]] HRESULT Reserved() noexcept;

    Microsoft::WRL::ComPtr<IProviderLogger> logger_;
    Microsoft::WRL::ComPtr<IProviderHostContext> hostContext_;
    MetricFactoryFunction factory_;
    MetricTable metrics_;  // last, so it is destroyed first
};

}  // namespace zeph
