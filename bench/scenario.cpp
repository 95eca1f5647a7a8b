#include "scenario.h"

#include "com/com_object.h"
#include "eventlog-sim/eventlog_sim.h"
#include "provider/provider.h"
#include "support/xml_document.h"
#include "win/com_strings.h"

#include <cstdio>
#include <cstdlib>

namespace zeph::bench {

namespace {

constexpr size_t kMessageVariants = 64;
// 2023-11-14 22:13:20 UTC, one second apart.
constexpr ULONGLONG kFirstEventTime = 133444736000000000ull;
constexpr ULONGLONG kOneSecond = 10000000ull;
constexpr DWORD kDeliveryWaitMs = 600000;

void Write(const wchar_t* channel, const wchar_t* publisher, USHORT eventId, ULONGLONG time,
           const std::wstring& message)
{
    const EVT_SIM_EVENT event{channel, publisher, eventId, time, message.c_str(), 0};
    if (::EvtSimWriteEvent(&event) != ERROR_SUCCESS) {
        Fail("the simulated event log refused an event");
    }
}

}  // namespace

void Fail(const char* what)
{
    std::fprintf(stderr, "zeph-bench: %s\n", what);
    std::fflush(stderr);
    std::exit(2);
}

Microsoft::WRL::ComPtr<IXMLDOMElement> MakeMetricConfig(const std::wstring& channel, const std::wstring& query)
{
    auto element =
        ParseXmlElement(L"<metric><channel>" + channel + L"</channel><query>" + query + L"</query></metric>");
    if (!element) {
        Fail("the metric configuration does not parse (is MSXML there?)");
    }
    return element;
}

void AddChannel(const wchar_t* channel)
{
    const DWORD result = ::EvtSimAddChannel(channel);
    if (result != ERROR_SUCCESS && result != ERROR_ALREADY_EXISTS) {
        Fail("cannot add a channel to the simulated event log (is wevtapi.dll the simulator?)");
    }
}

const std::vector<std::wstring>& CrashMessages()
{
    static const std::vector<std::wstring> messages = [] {
        std::vector<std::wstring> list;
        for (size_t i = 0; i < kMessageVariants; ++i) {
            wchar_t text[1024];
            std::swprintf(text, std::size(text),
                          L"Faulting application name: bench_app%02zu.exe, version: 10.0.19041.1, time stamp: "
                          L"0x5f1a2b%02zx\r\n"
                          L"Faulting module name: ntdll.dll, version: 10.0.19041.1288, time stamp: 0xa9a0a5b0\r\n"
                          L"Exception code: 0xc0000005\r\n"
                          L"Fault offset: 0x000000000004e1%02zx\r\n"
                          L"Faulting process id: 0x1a%02zx\r\n"
                          L"Faulting application start time: 0x01d7c0c2a5f3e1b0\r\n"
                          L"Faulting application path: C:\\Program Files\\Bench\\bench_app%02zu.exe\r\n"
                          L"Faulting module path: C:\\Windows\\SYSTEM32\\ntdll.dll\r\n"
                          L"Report Id: 6c1d2e3f-4a5b-4c6d-8e7f-0a1b2c3d4e%02zx\r\n"
                          L"Faulting package full name: \r\n"
                          L"Faulting package-relative application ID: ",
                          i, i, i, i, i, i);
            list.emplace_back(text);
        }
        return list;
    }();
    return messages;
}

ULONGLONG CrashTime(size_t index)
{
    return kFirstEventTime + index * kOneSecond;
}

const std::vector<std::wstring>& LayeringMessages()
{
    static const std::vector<std::wstring> messages = [] {
        std::vector<std::wstring> list;
        for (size_t i = 0; i < kMessageVariants; ++i) {
            list.push_back(L"New volume event (mounted): \\\\?\\Volume{3f2a91c0-77d4-4b1e-9a0c-5e6f7a8b9c" +
                           std::to_wstring(10 + i) + L"} D:\\Tesseras\\layer" + std::to_wstring(i) +
                           L".vhdx (VolumeType 2)");
            list.push_back(L"Volume watcher: " + std::to_wstring(i) +
                           L" volumes attached, policy refresh scheduled in 300 seconds");
        }
        return list;
    }();
    return messages;
}

void WriteCrashEvents(const wchar_t* channel, size_t count)
{
    const auto& messages = CrashMessages();
    for (size_t i = 0; i < count; ++i) {
        Write(channel, L"Application Error", 1000, CrashTime(i), messages[i % messages.size()]);
    }
}

void WriteLayeringEvents(const wchar_t* channel, size_t count)
{
    const auto& messages = LayeringMessages();
    for (size_t i = 0; i < count; ++i) {
        Write(channel, kLayeringPublisher, 3, kFirstEventTime + i * kOneSecond, messages[i % messages.size()]);
    }
}

void WaitForDeliveries()
{
    if (!::EvtSimWaitForDeliveries(kDeliveryWaitMs)) {
        Fail("deliveries did not finish");
    }
}

HostedProvider::HostedProvider(ULONG logLevels) : logger_(new HostLogger(logLevels, false)), context_(new HostContext())
{
    if (FAILED(ComObject<CProvider>::Create(IID_PPV_ARGS(&provider_))) ||
        FAILED(provider_->SetHostInterfaces(logger_, context_))) {
        Fail("cannot create the provider");
    }
}

HostedProvider::~HostedProvider()
{
    if (provider_) {
        provider_->UnsubscribeAllMetrics();
    }
    provider_.Reset();
    context_->Release();
    logger_->Release();
}

void HostedProvider::Subscribe(const wchar_t* metric, const wchar_t* channel, const wchar_t* query)
{
    const auto config = MakeMetricConfig(channel, query);
    const unique_bstr name = MakeBstr(metric);
    if (FAILED(provider_->SubscribeMetric(name.get(), config.Get()))) {
        Fail("the provider refused a subscription");
    }
}

HRESULT HostedProvider::Query(const wchar_t* metric, IUnknown* sink)
{
    const unique_bstr name = MakeBstr(metric);
    return provider_->QueryMetric(name.get(), 0, sink);
}

}  // namespace zeph::bench
