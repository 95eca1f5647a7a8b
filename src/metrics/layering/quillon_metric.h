// CQuillonMetric: follows the layering service's log-on sequence through its
// events (log-on, the manager's log-in response, volumes ready, all done,
// log-off) and reports the four moments, the manager's host from the registry
// and the Tesseras the service mounted.
//
// Ownership: owns its collector (shared) and, through CMetric, one reference
// each to the host logger and context.
// Threads: ParseEventLog runs on event delivery threads, CollectMetric on the
// host's thread; both hold the metric's lock for their whole run, which also
// serialises every call into the collector. The destructor stops deliveries
// before any member goes.
// Failure: sink and registry failures become log lines and results; only
// allocation failures and a failing lock throw.
#pragma once

#include "layering/quillon_event.h"
#include "layering/quillon_log_collector.h"
#include "metric/metric.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace zeph {

class CQuillonMetric final : public CMetric {
public:
    CQuillonMetric(const wchar_t* name, IProviderLogger* logger, IProviderHostContext* hostContext);
    ~CQuillonMetric() override;

    // Writes the time stamps, the manager host and the Tesseras. The result is
    // that of the Tessera writes alone; the other failures are only logged.
    [[nodiscard]] HRESULT CollectMetric(IMetricValueSink* sink, LONG_PTR context) override;

protected:
    void ParseEventLog(EVT_HANDLE event) override;

private:
    using TesseraList = std::vector<TesseraEntry>;

    void HandleQuillonEvent(const QuillonEvent& event);
    void LogTesseras(TesseraList::const_iterator first, TesseraList::const_iterator last);

    [[nodiscard]] HRESULT ReportTimestamps(IMetricValueSink* sink);
    [[nodiscard]] HRESULT ReportManagerHost(IMetricValueSink* sink);
    [[nodiscard]] HRESULT ReadManagerHost();
    [[nodiscard]] HRESULT ReportInstances(IMetricValueSink* sink);

    // FILETIMEs of the log-on's moments; 0 while not seen.
    ULONGLONG logonTime_ = 0;
    ULONGLONG logonResponseTime_ = 0;
    ULONGLONG volumesReadyTime_ = 0;
    ULONGLONG allDoneTime_ = 0;
    std::mutex lock_;
    std::shared_ptr<CQuillonLogCollector> collector_;
    std::wstring managerHost_;
    // Not cleared between events: what one event fails to deliver keeps the
    // value of an earlier one.
    QuillonEvent currentEvent_;
};

}  // namespace zeph
