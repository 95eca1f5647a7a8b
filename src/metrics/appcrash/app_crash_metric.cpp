#include "appcrash/app_crash_metric.h"

#include "appcrash/crash_text.h"
#include "metric/event_log_handle.h"
#include "metric/event_log_reader.h"
#include "metric/logging.h"
#include "metric/metric_value_writer.h"
#include "win/hresult.h"

#include <memory>
#include <new>
#include <string>
#include <string_view>

namespace zeph {

namespace {

constexpr wchar_t kHostNamePrefix[] = L"<br />Host Name: ";
constexpr const wchar_t* kTimeCreatedPath[] = {L"Event/System/TimeCreated/@SystemTime"};

constexpr wchar_t kNameLengthFailed[] = L"Failed to query the NetBIOS name buffer length";
constexpr wchar_t kNameFailed[] = L"Failed to query the NetBIOS name of the local machine";
constexpr wchar_t kNoCrash[] = L"No application crash available";
constexpr wchar_t kFlagWriteFailed[] = L"Failed to write metric flag 'appcrash|contained'.";
constexpr wchar_t kDetailWriteFailed[] = L"Failed to collect metric 'appcrash|crash_details|*'.";
constexpr wchar_t kDropped[] = L"Collecting metric has exceeded max failure times. Delete event from list '%s'";
constexpr wchar_t kFlagValue[] = L"true";

}  // namespace

CAppCrashMetric::CAppCrashMetric(const wchar_t* name, IProviderLogger* logger, IProviderHostContext* hostContext)
    : CMetric(name, logger, hostContext), computerNameQuery_(&::GetComputerNameExW)
{
}

CAppCrashMetric::~CAppCrashMetric()
{
    StopDeliveries();
}

void CAppCrashMetric::ParseEventLog(EVT_HANDLE event)
{
    unique_evt_handle renderContext;
    std::lock_guard lock(mutex_);
    if (hostNameText_.empty()) {
        (void)QueryHostName();  // a failure is logged there and retried with the next event
    }
    crashTimeText_.clear();

    // The render context is made for this event and closed after the lock is released.
    // A failed render leaves the crash without a time part; the message still counts.
    (void)RenderEventValues(*renderContext.put(), event, kTimeCreatedPath, 1, [this](PEVT_VARIANT& values) {
        // An event without its time renders as a null value: the crash then
        // goes without a time part rather than with a made-up 1601 one.
        if (values != nullptr && values[0].Type == EvtVarTypeFileTime) {
            AppendCrashTime(crashTimeText_, values[0].FileTimeVal);  // emptied above; its storage stays
        }
    });

    // Opened afresh for every event and deliberately left open. An event whose
    // message cannot be formatted is no crash we can report: it is skipped.
    EVT_HANDLE publisher = ::EvtOpenPublisherMetadata(nullptr, kCrashPublisher, nullptr, 0, 0);
    (void)FormatEventMessage(publisher, event, [this](std::wstring_view message) { AddCrashEntry(message); });
}

void CAppCrashMetric::AddCrashEntry(std::wstring_view message)
{
    // Written into a spare text when there is one.
    CrashEntry entry{TakeSpareText(), 0};
    AssignDetailText(entry.text, message, crashTimeText_, hostNameText_);
    pendingCrashes_.push_back(std::move(entry));
    // The text the next crash will be written into: see FetchForWriting.
    if (!spareTexts_.empty()) {
        FetchForWriting(spareTexts_.back());
    }
}

CrashText CAppCrashMetric::TakeSpareText()
{
    if (spareTexts_.empty()) {
        return CrashText(PrivateHeapAllocator<wchar_t>(crashHeap_));
    }
    CrashText text = std::move(spareTexts_.back());
    spareTexts_.pop_back();
    return text;
}

void CAppCrashMetric::KeepSpareText(CrashText&& text) noexcept
{
    if (spareTexts_.size() >= kMostSpareTexts) {
        return;  // freed with its entry
    }
    try {
        spareTexts_.push_back(std::move(text));
    } catch (const std::bad_alloc&) {
        // Not kept: the text is freed with its entry.
    }
}

bool CAppCrashMetric::QueryHostName()
{
    DWORD size = 0;
    computerNameQuery_(ComputerNameNetBIOS, nullptr, &size);
    if (::GetLastError() != ERROR_MORE_DATA) {
        Log(Logger(), LogLevel::Error, kNameLengthFailed);
        return false;
    }
    auto buffer = std::make_unique<wchar_t[]>(size + 1);
    if (!computerNameQuery_(ComputerNameNetBIOS, buffer.get(), &size)) {
        LogFailure(Logger(), HResultFromWin32(static_cast<long>(::GetLastError())), kNameFailed);
        return false;
    }
    // Built aside: a half-built text would pass for a known name from then on.
    std::wstring text = kHostNamePrefix;
    text += buffer.get();
    hostNameText_ = std::move(text);
    return true;
}

HRESULT CAppCrashMetric::CollectMetric(IMetricValueSink* sink, LONG_PTR)
{
    std::lock_guard lock(mutex_);
    // Spare texts no crash needed since the last report go back to the heap.
    spareTexts_.clear();
    const HRESULT flag = ReportCrashFlag(sink);
    if (FAILED(flag)) {
        return flag;
    }
    return ReportCrashDetails(sink);
}

HRESULT CAppCrashMetric::ReportCrashFlag(IMetricValueSink* sink)
{
    if (pendingCrashes_.empty()) {
        Log(Logger(), LogLevel::Info, kNoCrash);
        return S_OK;
    }
    const HRESULT result = WriteMetricString(sink, kCrashFlagKey, kCrashFlagKey, kFlagValue);
    if (FAILED(result)) {
        LogFailure(Logger(), result, kFlagWriteFailed);
    }
    return result;
}

HRESULT CAppCrashMetric::ReportCrashDetails(IMetricValueSink* sink)
{
    uint32_t position = 0;
    while (!pendingCrashes_.empty()) {
        CrashEntry& entry = pendingCrashes_.front();
        ++position;
        const HRESULT result = WriteCrashDetail(sink, entry, position);
        if (SUCCEEDED(result)) {
            KeepSpareText(std::move(entry.text));
            pendingCrashes_.pop_front();
            continue;
        }
        // Refused: this crash and the ones behind it wait for the next report,
        // unless this was its last chance.
        if (++entry.failureCount < kMaxReportFailures) {
            return result;
        }
        pendingCrashes_.pop_front();
        // The line names the entry only after it is gone, so its quotes stay empty.
        Log(Logger(), LogLevel::Info, kDropped, L"");
        return result;
    }
    return S_OK;
}

HRESULT CAppCrashMetric::WriteCrashDetail(IMetricValueSink* sink, const CrashEntry& entry, uint32_t position)
{
    const std::wstring instance = std::to_wstring(position);
    const HRESULT result = WriteMetricString(sink, kCrashDetailsKey, instance, entry.text);
    if (FAILED(result)) {
        LogFailure(Logger(), result, kDetailWriteFailed);
    }
    return result;
}

}  // namespace zeph
