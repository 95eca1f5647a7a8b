// Bad inputs from every side the provider meets: configuration XML, event
// content, registry values, the layering service's logs and the host's own
// objects. Each row runs on a fresh provider that already holds two pending
// crashes; it names the result the host gets and the log lines it must see,
// and afterwards the pending crashes must still be there unless the row's own
// rules dropped them.
#include "app_crash_metric.h"
#include "config_element.h"
#include "layering_env.h"
#include "metric_factory.h"
#include "quillon_log_collector.h"
#include "recording_logger.h"
#include "recording_sink.h"
#include "reliability_host.h"
#include "simulated_event_log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <initializer_list>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;

using Lines = std::vector<LogLine>;

constexpr wchar_t kCrashQuery[] = L"*[System[Provider[@Name='Application Error']]]";
constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);      // 0x80070490
constexpr HRESULT kInvalidData = HRESULT_FROM_WIN32(ERROR_INVALID_DATA);  // 0x8007000D
constexpr HRESULT kNoFile = HRESULT_FROM_WIN32(ERROR_FILE_NOT_FOUND);    // 0x80070002

const ULONGLONG kCrashTime = FileTimeOf(2025, 6, 30, 12, 34, 56);
constexpr wchar_t kCrashTimeText[] = L"<br />Crash Time: 2025-06-30 12:34:56";
const ULONGLONG kLogonTime = FileTimeOf(2025, 7, 1, 8, 0, 0, 250);
const ULONGLONG kLaterTime = FileTimeOf(2025, 7, 1, 8, 0, 30, 500);

LogLine Info(const std::wstring& text) { return {LogLevel::Info, text}; }
LogLine Warning(const std::wstring& text) { return {LogLevel::Warning, text}; }
LogLine Error(const std::wstring& text) { return {LogLevel::Error, text}; }
LogLine ErrorFor(const std::wstring& text, HRESULT code) { return {LogLevel::Error, FailureLine(text, code)}; }

std::wstring Describe(const Lines& lines)
{
    std::wostringstream text;
    for (const LogLine& line : lines) {
        text << L"  [" << static_cast<int>(line.level) << L"] " << line.text.substr(0, 200) << L"\n";
    }
    return text.str();
}

std::string Narrow(const std::wstring& text)
{
    std::string narrow;
    for (wchar_t c : text) {
        narrow += (c >= 0x20 && c < 0x7F) || c == L'\n' ? static_cast<char>(c) : '?';
    }
    return narrow;
}

// A fresh provider as the host sets it up, with the crash metric subscribed
// and two crashes pending, plus the layering service installed hermetically.
class Bench {
public:
    explicit Bench(int row)
        : crashChannel_(L"ZephBadInput" + std::to_wstring(row) + L"Crashes"),
          layeringChannel_(L"ZephBadInput" + std::to_wstring(row) + L"Layering")
    {
        ::EvtSimAddChannel(crashChannel_.c_str());
        ::EvtSimAddChannel(layeringChannel_.c_str());
        logger_ = Adopt(new RecordingLogger(0x7));
        context_ = Adopt(new CountingHostContext());
        sink_ = Adopt(new RecordingSink());
        MirrorComputerName(service_.Registry());
        service_.SetManager(L"manager.zeph.test:8443");
        provider_ = NewProvider();
        EXPECT_EQ(provider_->SetHostInterfaces(logger_.Get(), context_.Get()), S_OK);
        EXPECT_EQ(provider_->SubscribeMetric(crashName_.get(), MakeMetricConfig(crashChannel_, kCrashQuery).Get()),
                  S_OK);
        Crash(L"pending 1");
        Crash(L"pending 2");
        WaitForDeliveries();
        logger_->Clear();
    }

    IZephDataProvider* Provider() { return provider_.Get(); }
    RecordingLogger& Logger() { return *logger_.Get(); }
    RecordingSink* Sink() { return sink_.Get(); }
    CountingHostContext* Context() { return context_.Get(); }
    ServiceInstall& Service() { return service_; }
    BSTR CrashName() { return crashName_.get(); }
    BSTR LayeringName() { return layeringName_.get(); }
    const std::wstring& LayeringChannel() const { return layeringChannel_; }

    void Crash(const std::wstring& message, DWORD flags = 0)
    {
        WriteEvent(crashChannel_.c_str(), kCrashPublisher, 1000, kCrashTime, message, flags);
    }
    void Layering(const std::wstring& message, ULONGLONG time = kLogonTime, DWORD flags = 0)
    {
        WriteEvent(layeringChannel_.c_str(), L"drovesvc", 3, time, message, flags);
    }
    // Writes one crash, waits for it and reports with the bench's sink.
    HRESULT CrashAndReport(const std::wstring& message, DWORD flags = 0)
    {
        Crash(message, flags);
        WaitForDeliveries();
        return QueryCrash(sink_.Get());
    }
    HRESULT QueryCrash(IUnknown* sink) { return provider_->QueryMetric(crashName_.get(), 0, sink); }
    HRESULT QueryLayering(IUnknown* sink = nullptr)
    {
        return provider_->QueryMetric(layeringName_.get(), 0, sink != nullptr ? sink : sink_.Get());
    }

    HRESULT SubscribeLayeringWith(const std::wstring& xml)
    {
        const ComPtr<IXMLDOMElement> config = MakeConfigElement(xml);
        return config ? provider_->SubscribeMetric(layeringName_.get(), config.Get()) : E_UNEXPECTED;
    }
    HRESULT SubscribeLayering() { return SubscribeLayeringWith(MetricXml(layeringChannel_, L"*")); }

    static std::wstring MetricXml(const std::wstring& channel, const std::wstring& query)
    {
        return L"<metric><channel>" + channel + L"</channel><query>" + query + L"</query></metric>";
    }

    // One log-on as the service makes it: log-on, then whatever the service
    // does to its logs, then all done (which searches the service log), then a query.
    HRESULT LogonCycle(const std::function<void(ServiceInstall&)>& meanwhile)
    {
        EXPECT_EQ(SubscribeLayering(), S_OK);
        Layering(L"User is logging in");
        WaitForDeliveries();
        meanwhile(service_);
        Layering(L"All volumes finished processing", kLaterTime);
        WaitForDeliveries();
        return QueryLayering();
    }

    // Accepted crash details of the bench's sink, in order.
    std::vector<std::wstring> CrashDetails() const
    {
        std::vector<std::wstring> details;
        for (const SinkWrite& write : sink_->Accepted()) {
            if (write.key == kCrashDetailsKey) {
                details.push_back(write.text);
            }
        }
        return details;
    }
    // Accepted writes under key, as (name, value text or number).
    std::vector<std::pair<std::wstring, std::wstring>> Values(const std::wstring& key) const
    {
        std::vector<std::pair<std::wstring, std::wstring>> values;
        for (const SinkWrite& write : sink_->Accepted()) {
            if (write.key == key) {
                values.emplace_back(write.name, write.type == VT_UI8 ? std::to_wstring(write.number) : write.text);
            }
        }
        return values;
    }

    // How often each pending crash reached the host, counting the row's own
    // reports and a final drain that accepts everything.
    std::pair<int, int> PendingReported()
    {
        ComPtr<RecordingSink> drain;
        drain = Adopt(new RecordingSink());
        provider_->QueryMetric(crashName_.get(), 0, drain.Get());
        provider_->QueryMetric(crashName_.get(), 0, drain.Get());
        int first = 0;
        int second = 0;
        for (const RecordingSink* sink : {sink_.Get(), drain.Get()}) {
            for (const SinkWrite& write : sink->Accepted()) {
                if (write.key != kCrashDetailsKey) {
                    continue;
                }
                first += write.text.rfind(L"pending 1<br />", 0) == 0 ? 1 : 0;
                second += write.text.rfind(L"pending 2<br />", 0) == 0 ? 1 : 0;
            }
        }
        return {first, second};
    }

private:
    ServiceInstall service_;
    std::wstring crashChannel_;
    std::wstring layeringChannel_;
    ComPtr<RecordingLogger> logger_;
    ComPtr<CountingHostContext> context_;
    ComPtr<RecordingSink> sink_;
    ComPtr<IZephDataProvider> provider_;
    const unique_bstr crashName_ = Bstr(kAppCrashMetricName);
    const unique_bstr layeringName_ = Bstr(kQuillonMetricName);
};

struct BadInput {
    const char* area;
    const char* input;
    HRESULT expected;
    Lines lines;  // must all appear, in this order; none at all: nothing may be logged
    std::function<HRESULT(Bench&)> run;
    int droppedPending = 0;  // pending crashes the row's own rules drop (oldest first)
};

// Lines the layering metric logs for a rejected configuration.
Lines RejectedLayeringConfig(const wchar_t* property)
{
    return {Info(L"created metric 'eventlog|eventlog_quillon'."),
            Error(std::wstring(L"Property '") + property + L"' was not found in the configuration."),
            ErrorFor(L"Failed to subscribe metric 'eventlog|eventlog_quillon'.", kNotFound),
            Info(L"Metric 'eventlog|eventlog_quillon' should be queried from internal metric.")};
}

// Subscribes the layering metric with xml; then a query shows whether it entered the table.
std::function<HRESULT(Bench&)> SubscribeThenQuery(std::wstring xml)
{
    return [xml = std::move(xml)](Bench& bench) {
        const HRESULT result = bench.SubscribeLayeringWith(xml);
        EXPECT_EQ(bench.QueryLayering(), S_OK);
        return result;
    };
}

// Subscribes with xml, writes a log-on into the bench's layering channel and
// reports whether it arrived: the time stamp when it did.
std::function<HRESULT(Bench&)> SubscribeThenLogOn(std::function<std::wstring(const Bench&)> xml, bool arrives)
{
    return [xml = std::move(xml), arrives](Bench& bench) {
        const HRESULT result = bench.SubscribeLayeringWith(xml(bench));
        bench.Layering(L"User is logging in");
        WaitForDeliveries();
        EXPECT_EQ(bench.QueryLayering(), S_OK);
        EXPECT_EQ(bench.Values(L"quillon|logon_timestamp").size(), arrives ? 1u : 0u);
        return result;
    };
}

// One crash message: its detail text is the expected message part, the time and the host.
std::function<HRESULT(Bench&)> CrashText(std::wstring message, std::wstring expectedStart, DWORD flags = 0,
                                         bool withTime = true)
{
    return [=](Bench& bench) {
        const HRESULT result = bench.CrashAndReport(message, flags);
        const std::vector<std::wstring> details = bench.CrashDetails();
        EXPECT_EQ(details.size(), 3u);
        const std::wstring expected = expectedStart + (withTime ? kCrashTimeText : L"") + HostNamePart();
        if (details.size() == 3 && details[2] != expected) {
            ADD_FAILURE() << "detail of " << details[2].size() << " units, expected " << expected.size() << ":\n"
                          << Narrow(details[2].substr(0, 300)) << "\n" << Narrow(expected.substr(0, 300));
        }
        return result;
    };
}

// A crash event that leaves no crash behind.
std::function<HRESULT(Bench&)> CrashSkipped(DWORD flags)
{
    return [flags](Bench& bench) {
        const HRESULT result = bench.CrashAndReport(L"never reported", flags);
        EXPECT_EQ(bench.CrashDetails().size(), 2u);
        return result;
    };
}

// Raw registry data: count bytes of bytes are stored. Data stored without
// its terminator is followed in memory by a nonzero unit: the system would
// otherwise add a terminator the caller forgot to count.
struct RegistryData {
    std::vector<BYTE> bytes;
    DWORD count;
    RegistryData(std::initializer_list<BYTE> raw) : bytes(raw), count(static_cast<DWORD>(bytes.size()))
    {
        bytes.insert(bytes.end(), {'!', '!'});
    }
    RegistryData(const BYTE* data, DWORD size) : bytes(data, data + size), count(size)
    {
        bytes.insert(bytes.end(), {'!', '!'});
    }
};

RegistryData Bytes(const std::wstring& text, bool terminated = true)
{
    return RegistryData(reinterpret_cast<const BYTE*>(text.c_str()),
                        static_cast<DWORD>((text.size() + (terminated ? 1 : 0)) * sizeof(wchar_t)));
}

// "Manager1" set to raw registry data, then a query of the layering metric;
// host is the manager value the sink must get, if any.
std::function<HRESULT(Bench&)> ManagerValue(DWORD type, RegistryData data, std::wstring host = {})
{
    return [=](Bench& bench) {
        bench.Service().Registry().SetValue(ServiceInstall::kParametersKey, L"Manager1", type, data.bytes.data(),
                                            data.count);
        EXPECT_EQ(bench.SubscribeLayering(), S_OK);
        const HRESULT result = bench.QueryLayering();
        const auto written = bench.Values(L"quillon|mgr");
        if (host.empty()) {
            EXPECT_TRUE(written.empty());
        } else {
            EXPECT_EQ(written, (std::vector<std::pair<std::wstring, std::wstring>>{{L"quillon|mgr", host}}));
        }
        return result;
    };
}


// "ImagePath" set to raw registry data (or removed), then a log-on that locates the log folder.
std::function<HRESULT(Bench&)> ImagePathValue(DWORD type, RegistryData data, bool remove = false)
{
    return [=](Bench& bench) {
        if (remove) {
            EXPECT_EQ(::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, ServiceInstall::kServiceKey, L"ImagePath"),
                      ERROR_SUCCESS);
        } else {
            bench.Service().Registry().SetValue(ServiceInstall::kServiceKey, L"ImagePath", type, data.bytes.data(),
                                                data.count);
        }
        EXPECT_EQ(bench.SubscribeLayering(), S_OK);
        bench.Layering(L"User is logging in");
        WaitForDeliveries();
        return bench.QueryLayering();
    };
}

// A log-on cycle through the service log; tesseras are the instances the sink must get.
std::function<HRESULT(Bench&)> ServiceLog(std::function<void(ServiceInstall&)> before,
                                          std::function<void(ServiceInstall&)> meanwhile,
                                          std::vector<std::pair<std::wstring, std::wstring>> tesseras)
{
    return [=](Bench& bench) {
        before(bench.Service());
        const HRESULT result = bench.LogonCycle(meanwhile);
        EXPECT_EQ(bench.Values(L"quillon|instances|*"), tesseras);
        return result;
    };
}

void NoLog(ServiceInstall&) {}

std::wstring ResponseWithMounts(int count, const wchar_t* tag = L"t")
{
    std::wstring text = L"Manager status 200 response\r\n";
    for (int i = 1; i <= count; ++i) {
        text += L"MOUNTED-READ;C:\\Tesseras\\" + std::wstring(tag) + std::to_wstring(i) + L".vhdx;" + tag +
                std::to_wstring(i) + L"\r\n";
    }
    return text;
}

using Instances = std::vector<std::pair<std::wstring, std::wstring>>;
const Instances kOneTessera = {{L"t1", L"C:\\Tesseras\\t1.vhdx"}};

std::vector<BadInput> BadInputs()
{
    const std::wstring longChannel(100000, L'C');
    // 3000 lines of about a hundred characters, and what they become.
    std::wstring hugeMessage;
    std::wstring hugeDetail;
    for (int line = 0; line < 3000; ++line) {
        const std::wstring text = L"frame " + std::to_wstring(line) + L": " + std::wstring(90, L'x');
        hugeMessage += text + L"\r\n";
        hugeDetail += text + L"<br />";
    }
    const std::wstring longHost(20000, L'h');
    const std::wstring longPath(1023, L'x');

    return {
        // ---- configuration XML
        {"configuration", "an element without children", kNotFound, RejectedLayeringConfig(L"channel"),
         SubscribeThenQuery(L"<metric/>")},
        {"configuration", "attributes instead of elements", kNotFound, RejectedLayeringConfig(L"channel"),
         SubscribeThenQuery(L"<metric channel='Application' query='*'/>")},
        {"configuration", "the properties nested one level deeper", kNotFound, RejectedLayeringConfig(L"channel"),
         SubscribeThenQuery(L"<metric><settings><channel>Application</channel><query>*</query></settings></metric>")},
        {"configuration", "a channel and no query", kNotFound, RejectedLayeringConfig(L"query"),
         SubscribeThenQuery(L"<metric><channel>Application</channel></metric>")},
        {"configuration", "a query and no channel", kNotFound, RejectedLayeringConfig(L"channel"),
         SubscribeThenQuery(L"<metric><query>*</query></metric>")},
        {"configuration", "property names in another letter case", kNotFound, RejectedLayeringConfig(L"channel"),
         SubscribeThenQuery(L"<metric><Channel>Application</Channel><QUERY>*</QUERY></metric>")},
        {"configuration", "empty texts", S_OK,
         {Info(L"Subscribed from metric 'eventlog|eventlog_quillon'."), Info(L"Not got time stamps for quillon event.")},
         SubscribeThenLogOn([](const Bench&) { return Bench::MetricXml(L"", L""); }, false)},
        {"configuration", "an empty channel element and a good query", S_OK,
         {Info(L"Subscribed from metric 'eventlog|eventlog_quillon'.")},
         SubscribeThenLogOn([](const Bench&) { return std::wstring(L"<metric><channel/><query>*</query></metric>"); },
                            false)},
        {"configuration", "a channel of 100000 characters", S_OK,
         {Info(L"Subscribed from metric 'eventlog|eventlog_quillon'.")},
         SubscribeThenLogOn([=](const Bench&) { return Bench::MetricXml(longChannel, L"*"); }, false)},
        {"configuration", "a query of 100000 characters", S_OK,
         {Info(L"Subscribed from metric 'eventlog|eventlog_quillon'."), Info(L"Not got time stamps for quillon event.")},
         SubscribeThenLogOn(
             [=](const Bench& bench) { return Bench::MetricXml(bench.LayeringChannel(), std::wstring(100000, L'*')); },
             false)},
        {"configuration", "a query the event log cannot parse", S_OK,
         {Info(L"Subscribed from metric 'eventlog|eventlog_quillon'.")},
         SubscribeThenLogOn(
             [](const Bench& bench) { return Bench::MetricXml(bench.LayeringChannel(), L"*[System[(EventID="); },
             false)},
        {"configuration", "the channel as a comment only", S_OK,
         {Info(L"Subscribed from metric 'eventlog|eventlog_quillon'.")},
         SubscribeThenLogOn(
             [](const Bench& bench) {
                 return L"<metric><channel><!-- " + bench.LayeringChannel() + L" --></channel><query>*</query></metric>";
             },
             false)},
        {"configuration", "the channel inside a CDATA section", S_OK,
         {Info(L"Subscribed from metric 'eventlog|eventlog_quillon'."), Info(L"Quillon Agent Event: User is logging in")},
         SubscribeThenLogOn(
             [](const Bench& bench) {
                 return L"<metric><channel><![CDATA[" + bench.LayeringChannel() + L"]]></channel><query>*</query></metric>";
             },
             true)},
        {"configuration", "two channel elements: the first one counts", S_OK,
         {Info(L"Subscribed from metric 'eventlog|eventlog_quillon'.")},
         SubscribeThenLogOn(
             [](const Bench& bench) {
                 return L"<metric><channel>Nowhere</channel><channel>" + bench.LayeringChannel() +
                        L"</channel><query>*</query></metric>";
             },
             false)},
        {"configuration", "a configuration object that is no XML element", E_INVALIDARG, {},
         [](Bench& bench) { return bench.Provider()->SubscribeMetric(bench.LayeringName(), bench.Context()); }},
        {"configuration", "no configuration object", E_INVALIDARG, {},
         [](Bench& bench) { return bench.Provider()->SubscribeMetric(bench.LayeringName(), nullptr); }},
        {"configuration", "no metric name", E_INVALIDARG, {},
         [](Bench& bench) {
             return bench.Provider()->SubscribeMetric(nullptr, MakeMetricConfig(L"Application", L"*").Get());
         }},
        {"configuration", "a metric name nobody provides", S_OK, {},
         [](Bench& bench) {
             const unique_bstr name = Bstr(L"eventlog|eventlog_appcrash2");
             return bench.Provider()->SubscribeMetric(name.get(), MakeMetricConfig(L"Application", L"*").Get());
         }},

        // ---- event content
        {"event content", "an empty message", S_OK, {}, CrashText(L"", L"")},
        {"event content", "a message of 300000 characters", S_OK, {}, CrashText(hugeMessage, hugeDetail)},
        {"event content", "a lone carriage return", S_OK, {}, CrashText(L"first\rsecond\r", L"first\rsecond\r")},
        {"event content", "a lone line feed", S_OK, {}, CrashText(L"\nfirst\nsecond", L"\nfirst\nsecond")},
        {"event content", "line feed before carriage return", S_OK, {},
         CrashText(L"a\n\r\nb\r\r\n\n", L"a\n<br />b\r<br />\n")},
        {"event content", "a message that is one line break", S_OK, {}, CrashText(L"\r\n", L"<br />")},
        {"event content", "printf directives and markup", S_OK, {},
         CrashText(L"%s %d %n %08lx %% <br /> &amp;", L"%s %d %n %08lx %% <br /> &amp;")},
        {"event content", "unpaired surrogates and a non-BMP character", S_OK, {},
         CrashText(L"\xD800 lone \xDFFF pair \xD83D\xDE00", L"\xD800 lone \xDFFF pair \xD83D\xDE00")},
        {"event content", "an unformattable crash", S_OK, {}, CrashSkipped(EVT_SIM_UNFORMATTABLE)},
        {"event content", "no time, no event id, unformattable", S_OK, {},
         CrashSkipped(EVT_SIM_UNFORMATTABLE | EVT_SIM_NO_TIME | EVT_SIM_NO_EVENT_ID)},
        {"event content", "a crash without its time", S_OK, {}, CrashText(L"no time", L"no time", EVT_SIM_NO_TIME, false)},
        {"event content", "a crash without its event id", S_OK, {}, CrashText(L"no id", L"no id", EVT_SIM_NO_EVENT_ID)},
        {"event content", "a layering event that cannot be formatted repeats the previous one", S_OK,
         {Info(L"Quillon Agent Event: User is logging in"), Info(L"PrepareCollectLog"),
          Info(L"Quillon Agent Event: User is logging in"), Info(L"PrepareCollectLog")},
         [](Bench& bench) {
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             bench.Layering(L"User is logging in", kLogonTime);
             bench.Layering(L"gone", kLaterTime, EVT_SIM_UNFORMATTABLE);
             WaitForDeliveries();
             const HRESULT result = bench.QueryLayering();
             EXPECT_EQ(bench.Values(L"quillon|logon_timestamp"),
                       (Instances{{L"quillon", std::to_wstring(UnixMillisecondsOf(kLaterTime))}}));
             return result;
         }},
        {"event content", "a first layering event without its time", S_OK,
         {Info(L"Quillon Agent Event: User is logging in"), Info(L"Not got time stamps for quillon event.")},
         [](Bench& bench) {
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             bench.Layering(L"User is logging in", kLogonTime, EVT_SIM_NO_TIME);
             WaitForDeliveries();
             return bench.QueryLayering();
         }},
        {"event content", "a later layering event without its time keeps the earlier time", S_OK,
         {Info(L"Quillon Agent Event: Response 200 from Manager")},
         [](Bench& bench) {
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             bench.Layering(L"User is logging in", kLogonTime);
             bench.Layering(L"Response 200 from Manager", kLaterTime, EVT_SIM_NO_TIME | EVT_SIM_NO_EVENT_ID);
             WaitForDeliveries();
             const HRESULT result = bench.QueryLayering();
             EXPECT_EQ(bench.Values(L"quillon|logon_response_timestamp"),
                       (Instances{{L"quillon", std::to_wstring(UnixMillisecondsOf(kLogonTime))}}));
             return result;
         }},
        {"event content", "an empty layering message", S_OK,
         {Info(L"Quillon Agent Event: "), Info(L"Not got time stamps for quillon event.")},
         [](Bench& bench) {
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             bench.Layering(L"");
             WaitForDeliveries();
             return bench.QueryLayering();
         }},
        {"event content", "printf directives in a manager response and its mount line", S_OK,
         {Info(L"Quillon Agent Event: Response 200 from Manager %s%n MOUNTED-READ;%s%d;%n%x\r\n"),
          Info(L"Find tessera path: %s%d"), Info(L"Find tessera id: %n%x")},
         [](Bench& bench) {
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             bench.Layering(L"Response 200 from Manager %s%n MOUNTED-READ;%s%d;%n%x\r\n");
             WaitForDeliveries();
             const HRESULT result = bench.QueryLayering();
             EXPECT_EQ(bench.Values(L"quillon|instances|*"), (Instances{{L"%n%x", L"%s%d"}}));
             return result;
         }},
        {"event content", "a manager response with 3000 mount lines", S_OK,
         {Info(L"Try to find Tessera from event log"), Info(L"Find tessera id: t3000")},
         [](Bench& bench) {
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             bench.Layering(L"Response 200 from Manager\r\n" + ResponseWithMounts(3000));
             WaitForDeliveries();
             const HRESULT result = bench.QueryLayering();
             const auto instances = bench.Values(L"quillon|instances|*");
             EXPECT_EQ(instances.size(), 3000u);
             if (!instances.empty()) {
                 EXPECT_EQ(instances.back(), (std::pair<std::wstring, std::wstring>{L"t3000",
                                                                                   L"C:\\Tesseras\\t3000.vhdx"}));
             }
             return result;
         }},

        // ---- registry values
        {"registry", "the manager as a DWORD", S_OK,
         {Warning(L"Failed to get Quillon Manager host information from registry.  Error code 0x8007000d."),
          Info(L"Not found the manager host in registry.")},
         ManagerValue(REG_DWORD, RegistryData{1, 0, 0, 0})},
        {"registry", "the manager as binary data", S_OK,
         {Warning(L"Failed to get Quillon Manager host information from registry.  Error code 0x8007000d.")},
         ManagerValue(REG_BINARY, Bytes(L"manager.zeph.test"))},
        {"registry", "the manager as a multi-string", S_OK,
         {Warning(L"Failed to get Quillon Manager host information from registry.  Error code 0x8007000d.")},
         ManagerValue(REG_MULTI_SZ, Bytes(std::wstring(L"first\0second\0", 13)))},
        {"registry", "the manager of odd byte length", S_OK,
         {Warning(L"Failed to get Quillon Manager host information from registry.  Error code 0x8007000d.")},
         ManagerValue(REG_SZ, RegistryData{'m', 0, 'g'})},
        {"registry", "the manager without its terminating zero", S_OK,
         {Warning(L"Failed to get Quillon Manager host information from registry.  Error code 0x8007000d.")},
         ManagerValue(REG_SZ, Bytes(L"manager", false))},
        {"registry", "the manager with no bytes at all", S_OK,
         {Warning(L"Failed to get Quillon Manager host information from registry.  Error code 0x8007000d.")},
         ManagerValue(REG_SZ, RegistryData{})},
        {"registry", "an empty manager", S_OK,
         {Warning(L"Quillon manager host value in registry is empty."), Info(L"Not found the manager host in registry.")},
         ManagerValue(REG_SZ, Bytes(L""))},
        {"registry", "an expandable manager is not expanded", S_OK,
         {Info(L"Got quillon manager host value in registry: %COMPUTERNAME%")},
         ManagerValue(REG_EXPAND_SZ, Bytes(L"%COMPUTERNAME%:8443"), L"%COMPUTERNAME%")},
        {"registry", "a manager that is only a port", S_OK, {Info(L"Not found the manager host in registry.")},
         ManagerValue(REG_SZ, Bytes(L":8443"))},
        {"registry", "a manager with text after its terminating zero", S_OK,
         {Info(L"Got quillon manager host value in registry: host")},
         ManagerValue(REG_SZ, Bytes(std::wstring(L"host\0junk", 9)), L"host")},
        {"registry", "a manager of 20000 characters", S_OK,
         {Info(L"Got quillon manager host value in registry: " + longHost)},
         ManagerValue(REG_SZ, Bytes(longHost + L":1"), longHost)},
        {"registry", "no manager value", S_OK,
         {Warning(L"Failed to get Quillon Manager host information from registry.  Error code 0x80070002.")},
         [](Bench& bench) {
             EXPECT_EQ(::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, ServiceInstall::kParametersKey, L"Manager1"),
                       ERROR_SUCCESS);
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             return bench.QueryLayering();
         }},
        {"registry", "an image path that is a DWORD is read as text", S_OK,
         {Info(L"drovesvc image path: BA"), Info(L"drovesvc log path: BA\\Logs\\")},
         ImagePathValue(REG_DWORD, RegistryData{0x42, 0, 0x41, 0})},
        {"registry", "an expandable image path is not expanded", S_OK,
         {Info(L"drovesvc log path: %ProgramFiles%\\Agent\\Logs\\")},
         ImagePathValue(REG_EXPAND_SZ, Bytes(L"%ProgramFiles%\\Agent\\drovesvc.exe"))},
        {"registry", "an image path too long for its buffer", S_OK,
         {Error(L"Failed to query value ImagePath, error: 234")},
         ImagePathValue(REG_SZ, Bytes(std::wstring(1100, L'p')))},
        {"registry", "an image path of 2046 bytes without terminator", S_OK,
         {Info(L"drovesvc log path: " + longPath + L"\\Logs\\")}, ImagePathValue(REG_SZ, Bytes(longPath, false))},
        {"registry", "an empty image path", S_OK, {Info(L"drovesvc log path: \\Logs\\")},
         ImagePathValue(REG_SZ, Bytes(L"\"\""))},
        {"registry", "no image path", S_OK, {Error(L"Failed to query value ImagePath, error: 2")},
         ImagePathValue(REG_SZ, RegistryData{}, true)},

        // ---- the service's logs
        {"service log", "no log and no backup", S_OK,
         {Info(L"Log file not exist"), Info(L"log is not availbe, read from backup log"),
          Error(L"Failed to open backup log file, error: 2"), Info(L"No tessera mounted.")},
         ServiceLog(NoLog, NoLog, {})},
        {"service log", "an empty log that stays empty", S_OK,
         {Info(L"Got log file(drovesvc.log) size: 0"), Info(L"No logs collected"),
          Error(L"Failed to find login response from the log")},
         ServiceLog([](ServiceInstall& service) { service.WriteLog(L""); }, NoLog, {})},
        {"service log", "new text of odd byte count", S_OK, {Info(L"Find tessera id: t1")},
         ServiceLog([](ServiceInstall& service) { service.WriteLog(L"earlier\r\n"); },
                    [](ServiceInstall& service) {
                        service.AppendLog(ResponseWithMounts(1));
                        service.AppendLogBytes("Z", 1);
                    },
                    kOneTessera)},
        {"service log", "a log of odd byte count at log-on: reading starts right there", S_OK,
         {Info(L"Got log file(drovesvc.log) size: 19"), Info(L"Find tessera id: t1")},
         ServiceLog(
             [](ServiceInstall& service) {
                 service.WriteLog(L"earlier\r\n");
                 service.AppendLogBytes("Z", 1);
             },
             [](ServiceInstall& service) { service.AppendLog(ResponseWithMounts(1)); }, kOneTessera)},
        {"service log", "a stray byte in the new text misaligns what follows", S_OK,
         {Info(L"Got log file(drovesvc.log) size: 18"), Error(L"Failed to find login response from the log")},
         ServiceLog([](ServiceInstall& service) { service.WriteLog(L"earlier\r\n"); },
                    [](ServiceInstall& service) {
                        service.AppendLogBytes("Z", 1);
                        service.AppendLog(ResponseWithMounts(1));
                    },
                    {})},
        {"service log", "a zero code unit after the response", S_OK, {Info(L"No tessera mounted.")},
         ServiceLog(NoLog,
                    [](ServiceInstall& service) {
                        service.WriteLog(std::wstring(L"Manager status 200 response\r\n\0", 30) + ResponseWithMounts(1));
                    },
                    {})},
        {"service log", "a zero code unit before the response", S_OK,
         {Error(L"Failed to find login response from the log")},
         ServiceLog(NoLog,
                    [](ServiceInstall& service) { service.WriteLog(std::wstring(L"\0", 1) + ResponseWithMounts(1)); },
                    {})},
        {"service log", "a truncated last mount line", S_OK, {Info(L"Find tessera id: t1")},
         ServiceLog(NoLog,
                    [](ServiceInstall& service) {
                        service.WriteLog(ResponseWithMounts(1) + L"MOUNTED-READ;C:\\Tesseras\\t2.vhdx;t2");
                    },
                    kOneTessera)},
        {"service log", "a log cut inside the mount token", S_OK, {Info(L"Find tessera id: t1")},
         ServiceLog(NoLog, [](ServiceInstall& service) { service.WriteLog(ResponseWithMounts(1) + L"MOUNTED-RE"); },
                    kOneTessera)},
        {"service log", "600000 new bytes, beyond the read limit", S_OK,
         {Error(L"Asked to read 600000 bytes, exceed max read bytes"), Info(L"No tessera mounted.")},
         ServiceLog(NoLog,
                    [](ServiceInstall& service) {
                        const std::wstring mounts = ResponseWithMounts(1);
                        service.WriteLog(mounts + std::wstring(300000 - mounts.size(), L'.'));
                    },
                    {})},
        {"service log", "new text of exactly the read limit", S_OK, {Info(L"Find tessera id: t1")},
         ServiceLog(NoLog,
                    [](ServiceInstall& service) {
                        const std::wstring mounts = ResponseWithMounts(1);
                        service.WriteLog(mounts + std::wstring(CQuillonLogCollector::kMaxReadBytes / 2 - mounts.size(),
                                                               L'.'));
                    },
                    kOneTessera)},
        {"service log", "a backup smaller than the log was at log-on", S_OK,
         {Info(L"Read logs from drovesvc.log and drovesvc_bak.log"),
          Error(L"Backup log file size less than the beginning size, must error occurred, abort"),
          Info(L"Find tessera id: t1")},
         ServiceLog([](ServiceInstall& service) { service.WriteLog(std::wstring(2000, L'.')); },
                    [](ServiceInstall& service) {
                        service.WriteBackup(L"x");
                        service.WriteLog(ResponseWithMounts(1));
                    },
                    kOneTessera)},
        {"service log", "the response split across the rotation", S_OK,
         {Info(L"Read logs from drovesvc.log and drovesvc_bak.log"), Info(L"Find tessera id: t1")},
         ServiceLog([](ServiceInstall& service) { service.WriteLog(std::wstring(2000, L'.')); },
                    [](ServiceInstall& service) {
                        const std::wstring mounts = ResponseWithMounts(1);
                        service.AppendLog(mounts.substr(0, 16));
                        service.RotateLog();
                        service.WriteLog(mounts.substr(16));
                    },
                    kOneTessera)},
        {"service log", "the log removed and no backup", S_OK,
         {Info(L"log is not availbe, read from backup log"), Error(L"Failed to open backup log file, error: 2")},
         ServiceLog([](ServiceInstall& service) { service.WriteLog(L"earlier\r\n"); },
                    [](ServiceInstall& service) { service.RemoveLog(); }, {})},
        {"service log", "the log emptied in place and no backup", S_OK,
         {Info(L"Read logs from drovesvc.log and drovesvc_bak.log"), Error(L"Failed to open backup log file, error: 2")},
         ServiceLog([](ServiceInstall& service) { service.WriteLog(L"earlier\r\n"); },
                    [](ServiceInstall& service) { service.WriteLog(L""); }, {})},
        {"service log", "a log that grew without the response", S_OK,
         {Info(L"Read logs from drovesvc.log"), Error(L"Failed to find login response from the log")},
         ServiceLog(NoLog, [](ServiceInstall& service) { service.WriteLog(L"MOUNTED-READ;C:\\x.vhdx;x\r\n"); }, {})},

        // ---- the host's own objects
        {"host", "no sink", E_POINTER, {ErrorFor(L"Failed to write metric flag 'appcrash|contained'.", E_POINTER)},
         [](Bench& bench) { return bench.QueryCrash(nullptr); }},
        {"host", "a sink object without the sink interface", E_POINTER,
         {ErrorFor(L"Failed to write metric flag 'appcrash|contained'.", E_POINTER)},
         [](Bench& bench) { return bench.QueryCrash(bench.Context()); }},
        {"host", "no sink, straight to the typed query", E_POINTER,
         {ErrorFor(L"Failed to write metric flag 'appcrash|contained'.", E_POINTER)},
         [](Bench& bench) { return bench.Provider()->QueryMetricToSink(bench.CrashName(), 0, nullptr); }},
        {"host", "a sink that refuses everything, five times", E_FAIL,
         {ErrorFor(L"Failed to write metric flag 'appcrash|contained'.", E_FAIL)},
         [](Bench& bench) {
             bench.Sink()->SetPolicy([](const std::wstring&, const std::wstring&) { return E_FAIL; });
             HRESULT result = S_OK;
             for (int query = 0; query < 5; ++query) {
                 result = bench.QueryCrash(bench.Sink());
             }
             bench.Sink()->SetPolicy(nullptr);
             return result;
         }},
        {"host", "a sink that refuses every detail, three times", E_FAIL,
         {ErrorFor(L"Failed to collect metric 'appcrash|crash_details|*'.", E_FAIL),
          Info(L"Collecting metric has exceeded max failure times. Delete event from list ''")},
         [](Bench& bench) {
             bench.Sink()->Refuse(kCrashDetailsKey, E_FAIL);
             HRESULT result = S_OK;
             for (int query = 0; query < 3; ++query) {
                 result = bench.QueryCrash(bench.Sink());
             }
             bench.Sink()->SetPolicy(nullptr);
             return result;
         },
         1},
        {"host", "a sink that answers S_FALSE", S_OK, {},
         [](Bench& bench) {
             bench.Sink()->SetPolicy([](const std::wstring&, const std::wstring&) { return S_FALSE; });
             const HRESULT result = bench.QueryCrash(bench.Sink());
             bench.Sink()->SetPolicy(nullptr);
             EXPECT_EQ(bench.CrashDetails().size(), 2u);
             return result;
         }},
        {"host", "no logger", E_INVALIDARG, {},
         [](Bench& bench) { return bench.Provider()->SetHostInterfaces(nullptr, bench.Context()); }},
        {"host", "no host context", E_INVALIDARG, {},
         [](Bench& bench) { return bench.Provider()->SetHostInterfaces(&bench.Logger(), nullptr); }},
        {"host", "a provider never given a logger drops a crash silently", E_FAIL, {},
         [](Bench& bench) {
             ::EvtSimAddChannel(L"ZephBadInputBare");
             ComPtr<IZephDataProvider> bare = NewProvider();
             const unique_bstr name = Bstr(kAppCrashMetricName);
             EXPECT_EQ(bare->SubscribeMetric(name.get(), MakeMetricConfig(L"ZephBadInputBare", kCrashQuery).Get()),
                       S_OK);
             ComPtr<RecordingSink> refusing;
             refusing = Adopt(new RecordingSink());
             refusing->Refuse(kCrashDetailsKey, E_FAIL);
             HRESULT result = S_OK;
             for (int query = 0; query < 4; ++query) {
                 result = bare->QueryMetric(name.get(), 0, refusing.Get());
             }
             EXPECT_EQ(result, S_OK) << "nothing was pending";
             WriteEvent(L"ZephBadInputBare", kCrashPublisher, 1000, kCrashTime, L"bare");
             WaitForDeliveries();
             for (int query = 0; query < 3; ++query) {
                 result = bare->QueryMetric(name.get(), 0, refusing.Get());
             }
             EXPECT_EQ(bare->QueryMetric(name.get(), 0, bench.Sink()), S_OK);
             EXPECT_EQ(bench.CrashDetails().size(), 0u) << "the refused crash was dropped";
             return result;
         }},
        {"host", "a logger whose every call fails", S_OK,
         {Info(L"created metric 'eventlog|eventlog_quillon'."), Info(L"Subscribed from metric 'eventlog|eventlog_quillon'."),
          ErrorFor(L"Failed to write metric flag 'appcrash|contained'.", E_POINTER)},
         [](Bench& bench) {
             bench.Logger().SetResult(E_FAIL);
             const HRESULT result = bench.SubscribeLayering();
             EXPECT_EQ(bench.QueryCrash(nullptr), E_POINTER);
             bench.Logger().SetResult(S_OK);
             return result;
         }},
        {"host", "a logger with every level off", E_POINTER, {},
         [](Bench& bench) {
             bench.Logger().SetLevels(0);
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             const HRESULT result = bench.QueryCrash(nullptr);
             bench.Logger().SetLevels(0x7);
             return result;
         }},
        {"host", "a logger with errors only", S_OK, {},
         [](Bench& bench) {
             bench.Logger().SetLevels(0x1);
             EXPECT_EQ(bench.QueryCrash(bench.Sink()), S_OK);
             const HRESULT result = bench.QueryCrash(bench.Sink());
             bench.Logger().SetLevels(0x7);
             return result;
         }},
        {"host", "a query without a name", E_INVALIDARG, {},
         [](Bench& bench) { return bench.Provider()->QueryMetric(nullptr, 0, bench.Sink()); }},
        {"host", "a query in another letter case", S_OK,
         {Info(L"Metric 'EVENTLOG|eventlog_appcrash' should be queried from internal metric.")},
         [](Bench& bench) {
             const unique_bstr name = Bstr(L"EVENTLOG|eventlog_appcrash");
             return bench.Provider()->QueryMetric(name.get(), 0, bench.Sink());
         }},
        {"host", "an unsubscribe without a name", E_INVALIDARG, {},
         [](Bench& bench) { return bench.Provider()->UnsubscribeMetric(nullptr); }},
        {"host", "no sink for the layering metric after a log-on", S_OK,
         {ErrorFor(L"Failed to collect metric 'quillon|logon_timestamp'.", E_POINTER),
          ErrorFor(L"Failed to write attach time metrics.", E_POINTER),
          ErrorFor(L"Failed to collect metric 'quillon|mgr'.", E_POINTER), Info(L"No tessera mounted.")},
         [](Bench& bench) {
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             bench.Layering(L"User is logging in");
             WaitForDeliveries();
             return bench.Provider()->QueryMetricToSink(bench.LayeringName(), 0, nullptr);
         }},
        {"host", "a sink that refuses the layering instance flag", E_FAIL,
         {ErrorFor(L"Failed to write metric flag 'quillon|instances'.", E_FAIL)},
         [](Bench& bench) {
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             bench.Layering(L"Response 200 from Manager\r\n" + ResponseWithMounts(2));
             WaitForDeliveries();
             bench.Sink()->Refuse(L"quillon|instances", E_FAIL);
             const HRESULT result = bench.QueryLayering();
             bench.Sink()->SetPolicy(nullptr);
             EXPECT_TRUE(bench.Values(L"quillon|instances|*").empty());
             return result;
         }},
        {"host", "a sink that refuses the first of two Tesseras", S_OK,
         {ErrorFor(L"Failed to collect metric 'quillon|instances|*'.", E_FAIL)},
         [](Bench& bench) {
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             bench.Layering(L"Response 200 from Manager\r\n" + ResponseWithMounts(2));
             WaitForDeliveries();
             bench.Sink()->Refuse(L"quillon|instances|*", E_FAIL, L"t1");
             const HRESULT result = bench.QueryLayering();
             bench.Sink()->SetPolicy(nullptr);
             EXPECT_EQ(bench.Values(L"quillon|instances|*"), (Instances{{L"t2", L"C:\\Tesseras\\t2.vhdx"}}));
             return result;
         }},
    };
}

// True when expected appears in actual in order (other lines may come between).
bool AppearsInOrder(const Lines& actual, const Lines& expected)
{
    size_t next = 0;
    for (const LogLine& line : actual) {
        if (next < expected.size() && line == expected[next]) {
            ++next;
        }
    }
    return next == expected.size();
}

TEST(BadInputTest, EveryRowGivesItsResultAndLinesAndLosesNothingPending)
{
    const std::vector<BadInput> rows = BadInputs();
    ASSERT_GE(rows.size(), 40u);
    int index = 0;
    for (const BadInput& row : rows) {
        SCOPED_TRACE(std::string(row.area) + ": " + row.input);
        Bench bench(index++);
        const HRESULT result = row.run(bench);
        EXPECT_EQ(result, row.expected) << std::hex << "0x" << result;

        const Lines lines = bench.Logger().Lines();
        if (row.lines.empty()) {
            EXPECT_TRUE(lines.empty()) << "logged:\n" << Narrow(Describe(lines));
        } else {
            EXPECT_TRUE(AppearsInOrder(lines, row.lines))
                << "expected, in order:\n" << Narrow(Describe(row.lines)) << "logged:\n" << Narrow(Describe(lines));
        }

        const auto [first, second] = bench.PendingReported();
        EXPECT_EQ(first, row.droppedPending >= 1 ? 0 : 1) << "pending crash 1";
        EXPECT_EQ(second, row.droppedPending >= 2 ? 0 : 1) << "pending crash 2";
    }
    std::printf("bad inputs: %zu rows\n", rows.size());
}

}  // namespace
}  // namespace zeph
