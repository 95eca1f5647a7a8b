#include "layering/quillon_metric.h"

#include "layering/quillon_keys.h"
#include "layering/registry_string.h"
#include "metric/event_log_handle.h"
#include "metric/event_log_reader.h"
#include "metric/logging.h"
#include "metric/metric_value_writer.h"
#include "win/file_time.h"

#include <iterator>

namespace zeph {

namespace {

constexpr const wchar_t* kEventValuePaths[] = {
    L"Event/System/EventID",
    L"Event/System/TimeCreated/@SystemTime",
};
constexpr wchar_t kPublisherName[] = L"drovesvc";

constexpr wchar_t kManagerKey[] = L"SYSTEM\\CurrentControlSet\\services\\drovesvc\\Parameters";
constexpr wchar_t kManagerValue[] = L"Manager1";

constexpr wchar_t kAgentEvent[] = L"Quillon Agent Event: %s";
constexpr wchar_t kTryEventLog[] = L"Try to find Tessera from event log";
constexpr wchar_t kTryServiceLog[] = L"No Tessera find from event log, try to find it from quillon log";
constexpr wchar_t kTesseraLine[] = L"TesseraId: %s, TesseraPath: %s";

constexpr wchar_t kTimestampsFailed[] = L"Failed to write attach time metrics.";
constexpr wchar_t kNoTimestamps[] = L"Not got time stamps for quillon event.";
constexpr wchar_t kLogonTimestampFailed[] = L"Failed to collect metric 'quillon|logon_timestamp'.";
constexpr wchar_t kLogonResponseTimestampFailed[] = L"Failed to collect metric 'quillon|logon_response_timestamp'.";
constexpr wchar_t kVolumesReadyTimestampFailed[] = L"Failed to collect metric 'quillon|volumes_ready_timestamp'.";
constexpr wchar_t kAllDoneTimestampFailed[] = L"Failed to collect metric 'quillon|all_done_timestamp'.";
constexpr wchar_t kManagerReadFailed[] =
    L"Failed to get Quillon Manager host information from registry.  Error code 0x%08lx.";
constexpr wchar_t kManagerEmpty[] = L"Quillon manager host value in registry is empty.";
constexpr wchar_t kManagerFound[] = L"Got quillon manager host value in registry: %s";
constexpr wchar_t kManagerWriteFailed[] = L"Failed to collect metric 'quillon|mgr'.";
constexpr wchar_t kManagerNotFound[] = L"Not found the manager host in registry.";
constexpr wchar_t kNoTesseras[] = L"No tessera mounted.";
constexpr wchar_t kInstancesFlagFailed[] = L"Failed to write metric flag 'quillon|instances'.";
constexpr wchar_t kInstanceFailed[] = L"Failed to collect metric 'quillon|instances|*'.";

// ReadManagerHost's answer for a value that is present but empty.
constexpr HRESULT kManagerHostEmpty = 1;

}  // namespace

CQuillonMetric::CQuillonMetric(const wchar_t* name, IProviderLogger* logger, IProviderHostContext* hostContext)
    : CMetric(name, logger, hostContext), collector_(std::make_shared<CQuillonLogCollector>(logger))
{
}

CQuillonMetric::~CQuillonMetric()
{
    // A delivery in flight uses the collector and the lock: wait for it first.
    StopDeliveries();
    collector_.reset();
}

void CQuillonMetric::ParseEventLog(EVT_HANDLE event)
{
    const std::lock_guard lock(lock_);

    unique_evt_handle renderContext;
    // A failed render leaves the event's id and time as the last event left them.
    (void)RenderEventValues(*renderContext.put(), event, kEventValuePaths,
                            static_cast<DWORD>(std::size(kEventValuePaths)), [this](PEVT_VARIANT& values) {
                                if (values == nullptr) {
                                    return;
                                }
                                if (values[0].Type == EvtVarTypeUInt16) {
                                    currentEvent_.eventId = values[0].UInt16Val;
                                }
                                if (values[1].Type == EvtVarTypeFileTime) {
                                    currentEvent_.timeCreated = values[1].FileTimeVal;
                                }
                            });

    // Opened per event and deliberately left open, as the crash metric does.
    const EVT_HANDLE publisher = ::EvtOpenPublisherMetadata(nullptr, kPublisherName, nullptr, 0, 0);
    // An unformattable message keeps the last one, which classifies as before.
    (void)FormatEventMessage(publisher, event, [this](std::wstring_view message) { currentEvent_.message = message; });

    // Handled in place: nothing below changes it, and a copy would cost a
    // string allocation per event on the delivery thread.
    HandleQuillonEvent(currentEvent_);
}

void CQuillonMetric::HandleQuillonEvent(const QuillonEvent& event)
{
    Log(Logger(), LogLevel::Info, kAgentEvent, event.message.c_str());

    // What may fail for want of memory comes before the moment is taken, so
    // an event that cannot be handled is dropped whole.
    switch (ClassifyEventMessage(event.message)) {
    case QuillonEventKind::LogOn:
        // Without the log's folder or size the cycle goes on from the events alone.
        (void)collector_->PrepareCollectLog();
        logonTime_ = event.timeCreated;
        break;
    case QuillonEventKind::LogOnResponse:
        Log(Logger(), LogLevel::Info, kTryEventLog);
        (void)collector_->ParseMountedTesseras(event.message, 0);  // always true
        // The first response after a log-on is the one the user waited for.
        if (logonTime_ != 0 && logonResponseTime_ == 0) {
            logonResponseTime_ = event.timeCreated;
        }
        break;
    case QuillonEventKind::VolumesReady:
        volumesReadyTime_ = event.timeCreated;
        break;
    case QuillonEventKind::LogOff:
        // The Tesseras stay: they are still mounted until the next log-on.
        logonTime_ = 0;
        logonResponseTime_ = 0;
        volumesReadyTime_ = 0;
        allDoneTime_ = 0;
        break;
    case QuillonEventKind::AllDone: {
        const TesseraList tesseras = collector_->GetTesseras();
        if (tesseras.empty()) {
            Log(Logger(), LogLevel::Info, kTryServiceLog);
            // Nothing found leaves the list empty, which the query reports as such.
            (void)collector_->FindLoginResponse();
            // Over the list taken before the search, so nothing is listed here.
            LogTesseras(tesseras.begin(), tesseras.end());
        }
        allDoneTime_ = event.timeCreated;
        break;
    }
    case QuillonEventKind::Other:
        break;
    }
}

void CQuillonMetric::LogTesseras(TesseraList::const_iterator first, TesseraList::const_iterator last)
{
    for (; first != last; ++first) {
        Log(Logger(), LogLevel::Info, kTesseraLine, first->id.c_str(), first->path.c_str());
    }
}

HRESULT CQuillonMetric::CollectMetric(IMetricValueSink* sink, LONG_PTR /*context*/)
{
    const std::lock_guard lock(lock_);

    const HRESULT timestamps = ReportTimestamps(sink);
    if (FAILED(timestamps)) {
        LogFailure(Logger(), timestamps, kTimestampsFailed);
    }
    // The manager's host is optional: its failures are logged, the result is the instances'.
    (void)ReportManagerHost(sink);
    return ReportInstances(sink);
}

HRESULT CQuillonMetric::ReportTimestamps(IMetricValueSink* sink)
{
    if (logonTime_ == 0) {
        Log(Logger(), LogLevel::Info, kNoTimestamps);
        return S_OK;
    }

    // A moment the service did not report is taken to be the one before it;
    // the filled values stay.
    if (logonResponseTime_ == 0) {
        logonResponseTime_ = logonTime_;
    }
    if (volumesReadyTime_ == 0) {
        volumesReadyTime_ = logonResponseTime_;
    }
    if (allDoneTime_ == 0) {
        allDoneTime_ = volumesReadyTime_;
    }

    const struct {
        const wchar_t* key;
        ULONGLONG stamp;
        const wchar_t* failure;
    } stamps[] = {
        {kLogonTimestampKey, logonTime_, kLogonTimestampFailed},
        {kLogonResponseTimestampKey, logonResponseTime_, kLogonResponseTimestampFailed},
        {kVolumesReadyTimestampKey, volumesReadyTime_, kVolumesReadyTimestampFailed},
        {kAllDoneTimestampKey, allDoneTime_, kAllDoneTimestampFailed},
    };
    HRESULT result = S_OK;
    for (const auto& stamp : stamps) {
        result = WriteMetricUInt64(sink, stamp.key, kMetricNamespace, UnixMillisecondsOf(stamp.stamp));
        if (FAILED(result)) {
            LogFailure(Logger(), result, stamp.failure);
            return result;
        }
    }
    return result;
}

HRESULT CQuillonMetric::ReadManagerHost()
{
    std::wstring value;
    const HRESULT read = ReadRegistryString(HKEY_LOCAL_MACHINE, kManagerKey, kManagerValue, value);
    if (FAILED(read)) {
        Log(Logger(), LogLevel::Warning, kManagerReadFailed, read);
        return read;
    }
    if (value.empty()) {
        Log(Logger(), LogLevel::Warning, kManagerEmpty);
        return kManagerHostEmpty;
    }

    // The value may carry a port after a colon; the host is what comes before.
    const size_t colon = value.find(L':');
    if (colon != std::wstring::npos) {
        value.erase(colon);
    }
    if (value == managerHost_) {
        return S_OK;
    }
    managerHost_ = std::move(value);
    Log(Logger(), LogLevel::Info, kManagerFound, managerHost_.c_str());
    return S_OK;
}

HRESULT CQuillonMetric::ReportManagerHost(IMetricValueSink* sink)
{
    if (ReadManagerHost() == S_OK && !managerHost_.empty()) {
        const HRESULT written = WriteMetricString(sink, kManagerHostKey, kManagerHostKey, managerHost_);
        if (FAILED(written)) {
            LogFailure(Logger(), written, kManagerWriteFailed);
        }
        return written;
    }
    Log(Logger(), LogLevel::Info, kManagerNotFound);
    return S_OK;
}

HRESULT CQuillonMetric::ReportInstances(IMetricValueSink* sink)
{
    const TesseraList tesseras = collector_->GetTesseras();
    if (tesseras.empty()) {
        Log(Logger(), LogLevel::Info, kNoTesseras);
        return S_OK;
    }

    const HRESULT flag = WriteMetricString(sink, kInstancesFlagKey, kInstancesFlagKey, kInstancesFlagValue);
    if (FAILED(flag)) {
        LogFailure(Logger(), flag, kInstancesFlagFailed);
        return flag;
    }
    // Every Tessera gets its chance; the last write decides the result.
    HRESULT result = S_OK;
    for (const TesseraEntry& tessera : tesseras) {
        result = WriteMetricString(sink, kInstanceKey, tessera.id, tessera.path);
        if (FAILED(result)) {
            LogFailure(Logger(), result, kInstanceFailed);
        }
    }
    return result;
}

}  // namespace zeph
