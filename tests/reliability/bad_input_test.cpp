// Bad inputs from every side the provider meets: configuration XML, event
// content, registry values, the layering service's logs and the host's own
// objects. Each row runs on a fresh provider already holding two pending
// crashes, names the result the host gets and the lines it must see, and then
// the pending crashes must still be reported unless the row's own rules
// dropped them.
#include "appcrash/app_crash_metric.h"
#include "config_element.h"
#include "provider/metric_factory.h"
#include "recording_sink.h"
#include "reliability_host.h"
#include "simulated_event_log.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;

using Lines = std::vector<LogLine>;
using Instances = std::vector<std::pair<std::wstring, std::wstring>>;  // (name, value) of accepted writes

constexpr HRESULT kNotFound = HRESULT_FROM_WIN32(ERROR_NOT_FOUND);
const ULONGLONG kCrashTime = FileTimeOf(2025, 6, 30, 12, 34, 56);
const ULONGLONG kLogonTime = FileTimeOf(2025, 7, 1, 8, 0, 0, 250);
const ULONGLONG kLaterTime = FileTimeOf(2025, 7, 1, 8, 0, 30, 500);
constexpr wchar_t kDropLine[] = L"Collecting metric has exceeded max failure times. Delete event from list ''";
constexpr wchar_t kFlagFailed[] = L"Failed to write metric flag 'appcrash|contained'.";

LogLine Info(const std::wstring& text) { return {LogLevel::Info, text}; }
LogLine Warning(const std::wstring& text) { return {LogLevel::Warning, text}; }
LogLine Error(const std::wstring& text) { return {LogLevel::Error, text}; }
LogLine ErrorFor(const std::wstring& text, HRESULT code) { return {LogLevel::Error, FailureLine(text, code)}; }

std::wstring MetricXml(const std::wstring& channel, const std::wstring& query)
{
    return L"<metric><channel>" + channel + L"</channel><query>" + query + L"</query></metric>";
}

// A provider as the host sets it up, the crash metric subscribed with two
// crashes pending, and the layering service installed hermetically.
struct Bench {
    explicit Bench(int row)
        : crashChannel(L"ZephBadInput" + std::to_wstring(row) + L"Crashes"),
          layeringChannel(L"ZephBadInput" + std::to_wstring(row) + L"Layering"), provider(NewProvider())
    {
        AddChannels({crashChannel.c_str(), layeringChannel.c_str()});
        MirrorComputerName(service.Registry());
        service.SetManager(L"manager.zeph.test:8443");
        EXPECT_EQ(provider->SetHostInterfaces(logger.Get(), context.Get()), S_OK);
        EXPECT_EQ(provider->SubscribeMetric(crashName.get(), MakeMetricConfig(crashChannel, L"*").Get()), S_OK);
        Crash(L"pending 1");
        Crash(L"pending 2");
        WaitForDeliveries();
        logger->Clear();
    }

    void Crash(const std::wstring& message, DWORD flags = 0)
    {
        WriteEvent(crashChannel.c_str(), kCrashPublisher, 1000, kCrashTime, message, flags);
    }
    void Layering(const std::wstring& message, ULONGLONG time = kLogonTime, DWORD flags = 0)
    {
        WriteEvent(layeringChannel.c_str(), L"drovesvc", 3, time, message, flags);
    }
    HRESULT QueryCrash(IUnknown* to, int times = 1)
    {
        HRESULT result = S_OK;
        for (int query = 0; query < times; ++query) {
            result = provider->QueryMetric(crashName.get(), 0, to);
        }
        return result;
    }
    HRESULT QueryLayering() { return provider->QueryMetric(layeringName.get(), 0, sink.Get()); }
    // "$" in xml stands for the bench's layering channel.
    HRESULT SubscribeLayering(std::wstring xml = MetricXml(L"$", L"*"))
    {
        if (const size_t at = xml.find(L'$'); at != std::wstring::npos) {
            xml.replace(at, 1, layeringChannel);
        }
        const ComPtr<IXMLDOMElement> config = MakeConfigElement(xml);
        return config ? provider->SubscribeMetric(layeringName.get(), config.Get()) : E_UNEXPECTED;
    }

    Instances Values(const std::wstring& key, const RecordingSink* from = nullptr) const
    {
        Instances values;
        for (const SinkWrite& write : (from != nullptr ? from : sink.Get())->Accepted()) {
            if (write.key == key) {
                values.emplace_back(write.name, write.type == VT_UI8 ? std::to_wstring(write.number) : write.text);
            }
        }
        return values;
    }

    // How often each pending crash reached the host: in the row and in a drain that accepts everything.
    std::pair<int, int> PendingReported()
    {
        const ComPtr<RecordingSink> drain = Adopt(new RecordingSink());
        QueryCrash(drain.Get(), 2);
        int first = 0;
        int second = 0;
        for (const RecordingSink* from : {sink.Get(), drain.Get()}) {
            for (const auto& [name, text] : Values(kCrashDetailsKey, from)) {
                first += text.starts_with(L"pending 1<br />") ? 1 : 0;
                second += text.starts_with(L"pending 2<br />") ? 1 : 0;
            }
        }
        return {first, second};
    }

    ServiceInstall service;
    std::wstring crashChannel;
    std::wstring layeringChannel;
    ComPtr<RecordingLogger> logger = Adopt(new RecordingLogger(0x7));
    ComPtr<CountingHostContext> context = Adopt(new CountingHostContext());
    ComPtr<RecordingSink> sink = Adopt(new RecordingSink());
    ComPtr<IZephDataProvider> provider;
    const unique_bstr crashName = MakeBstr(kAppCrashMetricName);
    const unique_bstr layeringName = MakeBstr(kQuillonMetricName);
};

using Run = std::function<HRESULT(Bench&)>;

struct BadInput {
    const char* area;
    const char* input;
    HRESULT expected;
    Lines lines;  // must appear in this order; none: nothing may be logged
    Run run;
    int droppedPending = 0;  // pending crashes the row's own rules drop, oldest first
};

// ---- configuration

Lines RejectedLayeringConfig(const wchar_t* property)
{
    return {Info(L"created metric 'eventlog|eventlog_quillon'."),
            Error(std::wstring(L"Property '") + property + L"' was not found in the configuration."),
            ErrorFor(L"Failed to subscribe metric 'eventlog|eventlog_quillon'.", kNotFound),
            Info(L"Metric 'eventlog|eventlog_quillon' should be queried from internal metric.")};
}

// A log-on written into the bench's layering channel arrives (a stamp is
// reported) or not; the query also shows whether the metric entered the table.
Run SubscribeThenLogOn(std::wstring xml, bool arrives)
{
    return [=](Bench& bench) {
        const HRESULT result = bench.SubscribeLayering(xml);
        bench.Layering(L"User is logging in");
        WaitForDeliveries();
        EXPECT_EQ(bench.QueryLayering(), S_OK);
        EXPECT_EQ(bench.Values(L"quillon|logon_timestamp").size(), arrives ? 1u : 0u);
        return result;
    };
}

// ---- event content

// One crash; its detail is detail, then the time part (unless the event has none) and the host part.
Run CrashText(std::wstring message, std::wstring detail, DWORD flags = 0, bool withTime = true)
{
    return [=](Bench& bench) {
        bench.Crash(message, flags);
        WaitForDeliveries();
        const HRESULT result = bench.QueryCrash(bench.sink.Get());
        const Instances details = bench.Values(kCrashDetailsKey);
        const std::wstring expected =
            detail + (withTime ? L"<br />Crash Time: 2025-06-30 12:34:56" : L"") + HostNamePart();
        EXPECT_EQ(details.size(), 3u);
        EXPECT_TRUE(details.size() == 3 && details[2].second == expected)
            << "expected " << expected.size() << " units: " << expected.substr(0, 200);
        return result;
    };
}

// One layering event; the Tesseras the query reports.
Run LayeringEvent(std::wstring message, DWORD flags, Instances tesseras)
{
    return [=](Bench& bench) {
        EXPECT_EQ(bench.SubscribeLayering(), S_OK);
        bench.Layering(message, kLogonTime, flags);
        WaitForDeliveries();
        const HRESULT result = bench.QueryLayering();
        EXPECT_EQ(bench.Values(L"quillon|instances|*"), tesseras);
        return result;
    };
}

// ---- registry

// Raw registry data of count bytes. Data stored without its terminator is
// followed in memory by nonzero units, or the system would add the terminator.
struct RegistryData {
    std::vector<BYTE> bytes;
    DWORD count;
    RegistryData(const void* data, size_t size)
        : bytes(static_cast<const BYTE*>(data), static_cast<const BYTE*>(data) + size), count(static_cast<DWORD>(size))
    {
        bytes.insert(bytes.end(), {'!', '!'});
    }
};

RegistryData Bytes(const std::wstring& text, bool terminated = true)
{
    return RegistryData(text.c_str(), (text.size() + (terminated ? 1 : 0)) * sizeof(wchar_t));
}

// "Manager1" set to data; host is the manager the sink must get, if any.
Run ManagerValue(DWORD type, RegistryData data, std::wstring host = {})
{
    return [=](Bench& bench) {
        bench.service.Registry().SetValue(ServiceInstall::kParametersKey, L"Manager1", type, data.bytes.data(),
                                          data.count);
        EXPECT_EQ(bench.SubscribeLayering(), S_OK);
        const HRESULT result = bench.QueryLayering();
        EXPECT_EQ(bench.Values(L"quillon|mgr"), (host.empty() ? Instances{} : Instances{{L"quillon|mgr", host}}));
        return result;
    };
}

// "ImagePath" set to data, then a log-on, which locates the log folder.
Run ImagePathValue(DWORD type, RegistryData data)
{
    return [=](Bench& bench) {
        bench.service.Registry().SetValue(ServiceInstall::kServiceKey, L"ImagePath", type, data.bytes.data(),
                                          data.count);
        EXPECT_EQ(bench.SubscribeLayering(), S_OK);
        bench.Layering(L"User is logging in");
        WaitForDeliveries();
        return bench.QueryLayering();
    };
}

// ---- the service's logs

using LogStep = std::function<void(ServiceInstall&)>;
void NoLog(ServiceInstall&) {}

// A log-on cycle: before, log-on, meanwhile, all done (which searches the log),
// then a query; tesseras are what the sink must get.
Run ServiceLog(LogStep before, LogStep meanwhile, Instances tesseras)
{
    return [=](Bench& bench) {
        before(bench.service);
        EXPECT_EQ(bench.SubscribeLayering(), S_OK);
        bench.Layering(L"User is logging in");
        WaitForDeliveries();
        meanwhile(bench.service);
        bench.Layering(L"All volumes finished processing", kLaterTime);
        WaitForDeliveries();
        const HRESULT result = bench.QueryLayering();
        EXPECT_EQ(bench.Values(L"quillon|instances|*"), tesseras);
        return result;
    };
}

std::wstring ResponseWithMounts(int count)
{
    std::wstring text = L"Manager status 200 response\r\n";
    for (int i = 1; i <= count; ++i) {
        text += L"MOUNTED-READ;C:\\Tesseras\\t" + std::to_wstring(i) + L".vhdx;t" + std::to_wstring(i) + L"\r\n";
    }
    return text;
}

Instances Mounts(int count)
{
    Instances mounts;
    for (int i = 1; i <= count; ++i) {
        mounts.emplace_back(L"t" + std::to_wstring(i), L"C:\\Tesseras\\t" + std::to_wstring(i) + L".vhdx");
    }
    return mounts;
}

std::vector<BadInput> BadInputs()
{
    const std::wstring longChannel(100000, L'C');
    std::wstring hugeMessage;  // 3000 lines of about a hundred characters
    std::wstring hugeDetail;
    for (int line = 0; line < 3000; ++line) {
        const std::wstring text = L"frame " + std::to_wstring(line) + L": " + std::wstring(90, L'x');
        hugeMessage += text + L"\r\n";
        hugeDetail += text + L"<br />";
    }
    const std::wstring longHost(20000, L'h');
    const std::wstring longPath(1023, L'x');
    const LogLine subscribed = Info(L"Subscribed from metric 'eventlog|eventlog_quillon'.");
    const LogLine noStamps = Info(L"Not got time stamps for quillon event.");
    const LogLine noResponse = Error(L"Failed to find login response from the log");
    const LogLine noBackup = Error(L"Failed to open backup log file, error: 2");
    const LogStep earlier = [](ServiceInstall& service) { service.WriteLog(L"earlier\r\n"); };

    return {
        {"configuration", "an element without children", kNotFound, RejectedLayeringConfig(L"channel"),
         SubscribeThenLogOn(L"<metric/>", false)},
        {"configuration", "attributes instead of elements", kNotFound, RejectedLayeringConfig(L"channel"),
         SubscribeThenLogOn(L"<metric channel='Application' query='*'/>", false)},
        {"configuration", "the properties nested one level deeper", kNotFound, RejectedLayeringConfig(L"channel"),
         SubscribeThenLogOn(L"<metric><settings><channel>Application</channel><query>*</query></settings></metric>",
                            false)},
        {"configuration", "a channel and no query", kNotFound, RejectedLayeringConfig(L"query"),
         SubscribeThenLogOn(L"<metric><channel>Application</channel></metric>", false)},
        {"configuration", "property names in another letter case", kNotFound, RejectedLayeringConfig(L"channel"),
         SubscribeThenLogOn(L"<metric><Channel>Application</Channel><QUERY>*</QUERY></metric>", false)},
        {"configuration", "a channel of 100000 characters", S_OK, {subscribed},
         SubscribeThenLogOn(MetricXml(longChannel, L"*"), false)},
        {"configuration", "a query of 100000 characters", S_OK, {subscribed, noStamps},
         SubscribeThenLogOn(MetricXml(L"$", std::wstring(100000, L'*')), false)},
        {"configuration", "the channel as a comment only", S_OK, {subscribed},
         SubscribeThenLogOn(L"<metric><channel><!-- $ --></channel><query>*</query></metric>", false)},
        {"configuration", "the channel inside a CDATA section", S_OK,
         {subscribed, Info(L"Quillon Agent Event: User is logging in")},
         SubscribeThenLogOn(L"<metric><channel><![CDATA[$]]></channel><query>*</query></metric>", true)},
        {"configuration", "two channel elements: the first one counts", S_OK, {subscribed},
         SubscribeThenLogOn(L"<metric><channel>Nowhere</channel><channel>$</channel><query>*</query></metric>", false)},

        {"event content", "a message of 300000 characters", S_OK, {}, CrashText(hugeMessage, hugeDetail)},
        {"event content", "line feed before carriage return", S_OK, {},
         CrashText(L"a\n\r\nb\r\r\n\n", L"a\n<br />b\r<br />\n")},
        {"event content", "printf directives and markup", S_OK, {},
         CrashText(L"%s %d %n %08lx %% <br /> &amp;", L"%s %d %n %08lx %% <br /> &amp;")},
        {"event content", "unpaired surrogates and a non-BMP character", S_OK, {},
         CrashText(L"\xD800 lone \xDFFF pair \xD83D\xDE00", L"\xD800 lone \xDFFF pair \xD83D\xDE00")},
        {"event content", "a crash without its time", S_OK, {},
         CrashText(L"no time", L"no time", EVT_SIM_NO_TIME, false)},
        {"event content", "no time, no event id, unformattable", S_OK, {},
         [](Bench& bench) {
             bench.Crash(L"never reported", EVT_SIM_UNFORMATTABLE | EVT_SIM_NO_TIME | EVT_SIM_NO_EVENT_ID);
             WaitForDeliveries();
             const HRESULT result = bench.QueryCrash(bench.sink.Get());
             EXPECT_EQ(bench.Values(kCrashDetailsKey).size(), 2u);
             return result;
         }},
        {"event content", "a first layering event without its time", S_OK,
         {Info(L"Quillon Agent Event: User is logging in"), noStamps},
         LayeringEvent(L"User is logging in", EVT_SIM_NO_TIME, {})},
        {"event content", "an empty layering message", S_OK, {Info(L"Quillon Agent Event: "), noStamps},
         LayeringEvent(L"", 0, {})},
        {"event content", "printf directives in a manager response and its mount line", S_OK,
         {Info(L"Quillon Agent Event: Response 200 from Manager %s%n MOUNTED-READ;%s%d;%n%x\r\n"),
          Info(L"Find tessera path: %s%d"), Info(L"Find tessera id: %n%x")},
         LayeringEvent(L"Response 200 from Manager %s%n MOUNTED-READ;%s%d;%n%x\r\n", 0, {{L"%n%x", L"%s%d"}})},
        {"event content", "a manager response with 3000 mount lines", S_OK,
         {Info(L"Try to find Tessera from event log"), Info(L"Find tessera id: t3000")},
         LayeringEvent(L"Response 200 from Manager\r\n" + ResponseWithMounts(3000), 0, Mounts(3000))},

        {"registry", "the manager as binary data", S_OK,
         {Warning(L"Failed to get Quillon Manager host information from registry.  Error code 0x8007000d.")},
         ManagerValue(REG_BINARY, Bytes(L"manager.zeph.test"))},
        {"registry", "an expandable manager is not expanded", S_OK,
         {Info(L"Got quillon manager host value in registry: %COMPUTERNAME%")},
         ManagerValue(REG_EXPAND_SZ, Bytes(L"%COMPUTERNAME%:8443"), L"%COMPUTERNAME%")},
        {"registry", "a manager of 20000 characters", S_OK,
         {Info(L"Got quillon manager host value in registry: " + longHost)},
         ManagerValue(REG_SZ, Bytes(longHost + L":1"), longHost)},
        {"registry", "an image path that is a DWORD is read as text", S_OK,
         {Info(L"drovesvc image path: BA"), Info(L"drovesvc log path: BA\\Logs\\")},
         ImagePathValue(REG_DWORD, RegistryData("B\0A\0", 4))},
        {"registry", "an expandable image path is not expanded", S_OK,
         {Info(L"drovesvc log path: %ProgramFiles%\\Agent\\Logs\\")},
         ImagePathValue(REG_EXPAND_SZ, Bytes(L"%ProgramFiles%\\Agent\\drovesvc.exe"))},
        {"registry", "an image path of 2046 bytes without terminator", S_OK,
         {Info(L"drovesvc log path: " + longPath + L"\\Logs\\")}, ImagePathValue(REG_SZ, Bytes(longPath, false))},
        {"registry", "an empty image path", S_OK, {Info(L"drovesvc log path: \\Logs\\")},
         ImagePathValue(REG_SZ, Bytes(L"\"\""))},

        {"service log", "no log and no backup", S_OK,
         {Info(L"Log file not exist"), Info(L"log is not availbe, read from backup log"), noBackup,
          Info(L"No tessera mounted.")},
         ServiceLog(NoLog, NoLog, {})},
        {"service log", "an empty log that stays empty", S_OK,
         {Info(L"Got log file(drovesvc.log) size: 0"), Info(L"No logs collected"), noResponse},
         ServiceLog([](ServiceInstall& service) { service.WriteLog(L""); }, NoLog, {})},
        {"service log", "a log of odd byte count at log-on: reading starts right there", S_OK,
         {Info(L"Got log file(drovesvc.log) size: 19"), Info(L"Find tessera id: t1")},
         ServiceLog(
             [](ServiceInstall& service) {
                 service.WriteLog(L"earlier\r\n");
                 service.AppendLogBytes("Z", 1);
             },
             [](ServiceInstall& service) { service.AppendLog(ResponseWithMounts(1)); }, Mounts(1))},
        {"service log", "a stray byte in the new text misaligns what follows", S_OK,
         {Info(L"Got log file(drovesvc.log) size: 18"), noResponse},
         ServiceLog(earlier,
                    [](ServiceInstall& service) {
                        service.AppendLogBytes("Z", 1);
                        service.AppendLog(ResponseWithMounts(1));
                    },
                    {})},
        {"service log", "a zero code unit after the response", S_OK, {Info(L"No tessera mounted.")},
         ServiceLog(NoLog,
                    [](ServiceInstall& service) {
                        service.WriteLog(std::wstring(L"Manager status 200 response\r\n\0", 30) +
                                         ResponseWithMounts(1));
                    },
                    {})},
        {"service log", "the response split across the rotation", S_OK,
         {Info(L"Read logs from drovesvc.log and drovesvc_bak.log"), Info(L"Find tessera id: t1")},
         ServiceLog([](ServiceInstall& service) { service.WriteLog(std::wstring(2000, L'.')); },
                    [](ServiceInstall& service) {
                        const std::wstring mounts = ResponseWithMounts(1);
                        service.AppendLog(mounts.substr(0, 16));
                        service.RotateLog();
                        service.WriteLog(mounts.substr(16));
                    },
                    Mounts(1))},
        {"service log", "the log emptied in place and no backup", S_OK,
         {Info(L"Read logs from drovesvc.log and drovesvc_bak.log"), noBackup},
         ServiceLog(earlier, [](ServiceInstall& service) { service.WriteLog(L""); }, {})},

        // A null sink must cost no crash a chance, however often it comes.
        {"host", "no sink, three times", E_POINTER, {ErrorFor(kFlagFailed, E_POINTER)},
         [](Bench& bench) { return bench.QueryCrash(nullptr, 3); }},
        {"host", "a sink that refuses everything, five times", E_FAIL, {ErrorFor(kFlagFailed, E_FAIL)},
         [](Bench& bench) {
             bench.sink->SetPolicy([](const std::wstring&, const std::wstring&) { return E_FAIL; });
             return bench.QueryCrash(bench.sink.Get(), 5);
         }},
        {"host", "a sink that refuses every detail, three times: the third refusal drops", E_FAIL,
         {ErrorFor(L"Failed to collect metric 'appcrash|crash_details|*'.", E_FAIL),
          ErrorFor(L"Failed to collect metric 'appcrash|crash_details|*'.", E_FAIL),
          ErrorFor(L"Failed to collect metric 'appcrash|crash_details|*'.", E_FAIL), Info(kDropLine)},
         [](Bench& bench) {
             bench.sink->Refuse(kCrashDetailsKey, E_FAIL);
             return bench.QueryCrash(bench.sink.Get(), 3);
         },
         1},
        {"host", "a sink that answers S_FALSE", S_OK, {},
         [](Bench& bench) {
             bench.sink->SetPolicy([](const std::wstring&, const std::wstring&) { return S_FALSE; });
             const HRESULT result = bench.QueryCrash(bench.sink.Get());
             EXPECT_EQ(bench.Values(kCrashDetailsKey).size(), 2u);
             return result;
         }},
        {"host", "a provider never given a logger drops a crash silently", E_FAIL, {},
         [](Bench& bench) {
             constexpr wchar_t kBare[] = L"ZephBadInputBare";
             AddChannels({kBare});
             const ComPtr<IZephDataProvider> bare = NewProvider();
             EXPECT_EQ(bare->SubscribeMetric(bench.crashName.get(), MakeMetricConfig(kBare, L"*").Get()), S_OK);
             const ComPtr<RecordingSink> refusing = Adopt(new RecordingSink());
             refusing->Refuse(kCrashDetailsKey, E_FAIL);
             EXPECT_EQ(bare->QueryMetric(bench.crashName.get(), 0, refusing.Get()), S_OK) << "nothing was pending";
             WriteEvent(kBare, kCrashPublisher, 1000, kCrashTime, L"bare");
             WaitForDeliveries();
             HRESULT result = S_OK;
             for (int query = 0; query < 3; ++query) {
                 result = bare->QueryMetric(bench.crashName.get(), 0, refusing.Get());
             }
             EXPECT_EQ(bare->QueryMetric(bench.crashName.get(), 0, bench.sink.Get()), S_OK);
             EXPECT_EQ(bench.Values(kCrashDetailsKey).size(), 0u) << "the refused crash was dropped";
             return result;
         }},
        {"host", "a logger whose every call fails", S_OK,
         {Info(L"created metric 'eventlog|eventlog_quillon'."), subscribed, ErrorFor(kFlagFailed, E_POINTER)},
         [](Bench& bench) {
             bench.logger->SetResult(E_FAIL);
             const HRESULT result = bench.SubscribeLayering();
             EXPECT_EQ(bench.QueryCrash(nullptr), E_POINTER);
             return result;
         }},
        {"host", "a logger with every level off", E_POINTER, {},
         [](Bench& bench) {
             bench.logger->SetLevels(0);
             EXPECT_EQ(bench.SubscribeLayering(), S_OK);
             return bench.QueryCrash(nullptr);
         }},
        {"host", "a logger with errors only", S_OK, {},
         [](Bench& bench) {
             bench.logger->SetLevels(0x1);
             return bench.QueryCrash(bench.sink.Get(), 2);
         }},
    };
}

// True when expected appears in actual in order (other lines may come between).
bool AppearsInOrder(const Lines& actual, const Lines& expected)
{
    size_t next = 0;
    for (const LogLine& line : actual) {
        next += next < expected.size() && line == expected[next] ? 1 : 0;
    }
    return next == expected.size();
}

std::wstring Describe(const Lines& lines)
{
    std::wstring text;
    for (const LogLine& line : lines) {
        text += L"  [" + std::to_wstring(static_cast<int>(line.level)) + L"] " + line.text.substr(0, 200) + L"\n";
    }
    return text;
}

TEST(BadInputTest, EveryRowGivesItsResultAndLinesAndLosesNothingPending)
{
    const std::vector<BadInput> rows = BadInputs();
    ASSERT_GE(rows.size(), 40u);
    for (size_t index = 0; index < rows.size(); ++index) {
        const BadInput& row = rows[index];
        SCOPED_TRACE(std::string(row.area) + ": " + row.input);
        Bench bench(static_cast<int>(index));
        const HRESULT result = row.run(bench);
        EXPECT_EQ(result, row.expected) << std::hex << "0x" << result;

        const Lines lines = bench.logger->Lines();
        EXPECT_TRUE(row.lines.empty() ? lines.empty() : AppearsInOrder(lines, row.lines))
            << "expected, in order:\n" << Describe(row.lines) << "logged:\n" << Describe(lines);

        const auto [first, second] = bench.PendingReported();
        EXPECT_EQ(first, row.droppedPending >= 1 ? 0 : 1) << "pending crash 1";
        EXPECT_EQ(second, row.droppedPending >= 2 ? 0 : 1) << "pending crash 2";
    }
    std::printf("bad inputs: %zu rows\n", rows.size());
}

}  // namespace
}  // namespace zeph
