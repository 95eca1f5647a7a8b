#include "app_crash_metric.h"
#include "com_object.h"
#include "com_strings.h"
#include "config_element.h"
#include "diagnostics.h"
#include "hresult.h"
#include "provider.h"
#include "recording_logger.h"
#include "recording_sink.h"
#include "simulated_event_log.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using test::CountingHostContext;
using test::FileTimeOf;
using test::MakeMetricConfig;
using test::RecordingLogger;
using test::RecordingSink;
using test::SinkWrite;
using test::WaitForDeliveries;
using test::WriteEvent;

constexpr wchar_t kChannel[] = L"Application";
constexpr wchar_t kQuery[] = L"*[System[Provider[@Name='Application Error']]]";
constexpr USHORT kCrashEventId = 1000;
constexpr HRESULT kRefused = static_cast<HRESULT>(0x80070005);

std::wstring HostNamePart()
{
    wchar_t name[MAX_COMPUTERNAME_LENGTH + 1] = {};
    DWORD size = MAX_COMPUTERNAME_LENGTH + 1;
    EXPECT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, name, &size));
    return std::wstring(L"<br />Host Name: ") + name;
}

std::wstring SystemTextSuffix(HRESULT code)
{
    const ErrorText text = AppendErrorText(L"", code);
    return text.systemText ? FormatString(text.format.c_str(), code, text.systemText.get())
                           : FormatString(text.format.c_str(), code);
}

const ULONGLONG kCrashTime = FileTimeOf(2021, 3, 7, 14, 5, 9, 250);
constexpr wchar_t kCrashTimeText[] = L"<br />Crash Time: 2021-03-07 14:05:09";

// The crash metric on its own, fed by the simulated event log.
class AppCrashMetricTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        metric_ = std::make_unique<CAppCrashMetric>(kAppCrashMetricName, logger_, nullptr);
        ASSERT_EQ(metric_->Subscribe(MakeMetricConfig(kChannel, kQuery).Get()), S_OK);
        ASSERT_NE(metric_->SubscriptionHandle(), nullptr);
        logger_->Clear();
    }
    void TearDown() override
    {
        metric_.reset();
        sink_->Release();
        logger_->Release();
    }

    void Crash(const std::wstring& message, ULONGLONG time = kCrashTime, DWORD flags = 0)
    {
        WriteEvent(kChannel, kCrashPublisher, kCrashEventId, time, message, flags);
    }
    // Writes the crashes "crash 1".."crash n" and waits until they are parsed.
    void Crashes(int count)
    {
        for (int i = 1; i <= count; ++i) {
            Crash(L"crash " + std::to_wstring(i));
        }
        WaitForDeliveries();
    }
    HRESULT Report()
    {
        sink_->Clear();
        return metric_->CollectMetric(sink_, 0);
    }
    // The detail texts of the accepted writes, by instance key.
    std::vector<std::pair<std::wstring, std::wstring>> Details()
    {
        std::vector<std::pair<std::wstring, std::wstring>> details;
        for (const SinkWrite& write : sink_->Writes()) {
            if (write.key == kCrashDetailsKey) {
                details.emplace_back(write.name, write.text.substr(0, write.text.find(L"<br />")));
            }
        }
        return details;
    }

    RecordingLogger* logger_ = new RecordingLogger(0x7);
    RecordingSink* sink_ = new RecordingSink();
    std::unique_ptr<CAppCrashMetric> metric_;
};

TEST_F(AppCrashMetricTest, DetailTextJoinsMessageTimeAndHostWithBreaks)
{
    Crash(L"A\r\nB\r\n");
    Crash(L"A\n\rB");
    Crash(L"");
    Crash(L"same", FileTimeOf(1999, 1, 2, 3, 4, 5));
    Crash(L"same", FileTimeOf(1999, 1, 2, 3, 4, 5));
    WaitForDeliveries();
    ASSERT_EQ(Report(), S_OK);

    const std::wstring host = HostNamePart();
    const auto writes = sink_->Writes();
    ASSERT_EQ(writes.size(), 6u);
    EXPECT_EQ(writes[0].key, L"appcrash|contained");
    EXPECT_EQ(writes[0].name, L"appcrash|contained");
    EXPECT_EQ(writes[0].type, VT_BSTR);
    EXPECT_EQ(writes[0].text, L"true");
    const std::vector<std::wstring> expected = {
        L"A<br />B<br />" + std::wstring(kCrashTimeText) + host,
        L"A\n\rB" + std::wstring(kCrashTimeText) + host,
        kCrashTimeText + host,
        L"same<br />Crash Time: 1999-01-02 03:04:05" + host,
        L"same<br />Crash Time: 1999-01-02 03:04:05" + host,
    };
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(writes[i + 1].key, L"appcrash|crash_details|*");
        EXPECT_EQ(writes[i + 1].name, std::to_wstring(i + 1));
        EXPECT_EQ(writes[i + 1].type, VT_BSTR);
        EXPECT_EQ(writes[i + 1].text, expected[i]);
    }

    // Everything was accepted: the next report writes nothing.
    logger_->Clear();
    EXPECT_EQ(Report(), S_OK);
    EXPECT_TRUE(sink_->Writes().empty());
    EXPECT_EQ(logger_->Texts(), std::vector<std::wstring>{L"No application crash available"});
}

TEST_F(AppCrashMetricTest, EventsWithoutTimeOrMessageAndOtherPublishers)
{
    Crash(L"no time", 0, EVT_SIM_NO_TIME);
    Crash(L"unformattable", kCrashTime, EVT_SIM_UNFORMATTABLE);
    WriteEvent(kChannel, L"Somebody Else", kCrashEventId, kCrashTime, L"filtered by the query");
    WaitForDeliveries();
    ASSERT_EQ(Report(), S_OK);
    EXPECT_EQ(Details(), (std::vector<std::pair<std::wstring, std::wstring>>{{L"1", L"no time"}}));
}

BOOL WINAPI FailingSizeQuery(COMPUTER_NAME_FORMAT, LPWSTR, LPDWORD)
{
    ::SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

BOOL WINAPI FailingNameQuery(COMPUTER_NAME_FORMAT format, LPWSTR buffer, LPDWORD size)
{
    if (buffer == nullptr) {
        return ::GetComputerNameExW(format, buffer, size);
    }
    ::SetLastError(ERROR_ACCESS_DENIED);
    return FALSE;
}

TEST_F(AppCrashMetricTest, HostNameIsRetriedUntilTheSystemGivesIt)
{
    metric_->UseComputerNameQuery(&FailingSizeQuery);
    Crash(L"first");
    WaitForDeliveries();
    metric_->UseComputerNameQuery(&FailingNameQuery);
    Crash(L"second");
    WaitForDeliveries();
    metric_->UseComputerNameQuery(&::GetComputerNameExW);
    Crash(L"third");
    Crash(L"fourth");
    WaitForDeliveries();

    EXPECT_EQ(logger_->Lines(),
              (std::vector<test::LogLine>{
                  {LogLevel::Error, L"Failed to query the NetBIOS name buffer length"},
                  {LogLevel::Error, L"Failed to query the NetBIOS name of the local machine" +
                                        SystemTextSuffix(HResultFromWin32(ERROR_ACCESS_DENIED))}}));
    ASSERT_EQ(Report(), S_OK);
    const auto writes = sink_->Writes();
    ASSERT_EQ(writes.size(), 5u);
    EXPECT_EQ(writes[1].text, L"first" + std::wstring(kCrashTimeText));
    EXPECT_EQ(writes[2].text, L"second" + std::wstring(kCrashTimeText));
    EXPECT_EQ(writes[3].text, L"third" + std::wstring(kCrashTimeText) + HostNamePart());
    EXPECT_EQ(writes[4].text, L"fourth" + std::wstring(kCrashTimeText) + HostNamePart());
}

TEST_F(AppCrashMetricTest, ARefusedDetailStaysWithTheOnesBehindIt)
{
    Crashes(3);
    sink_->Refuse(kCrashDetailsKey, kRefused, L"2");
    EXPECT_EQ(Report(), kRefused);
    EXPECT_EQ(Details(), (std::vector<std::pair<std::wstring, std::wstring>>{{L"1", L"crash 1"}, {L"2", L"crash 2"}}));
    EXPECT_EQ(logger_->Texts(), std::vector<std::wstring>{L"Failed to collect metric 'appcrash|crash_details|*'." +
                                                          SystemTextSuffix(kRefused)});

    sink_->SetPolicy(nullptr);
    EXPECT_EQ(Report(), S_OK);
    EXPECT_EQ(Details(), (std::vector<std::pair<std::wstring, std::wstring>>{{L"1", L"crash 2"}, {L"2", L"crash 3"}}));
}

TEST_F(AppCrashMetricTest, ACrashRefusedThreeTimesIsDroppedWithItsLine)
{
    Crashes(2);
    sink_->Refuse(kCrashDetailsKey, kRefused, L"1");
    for (int report = 1; report <= 3; ++report) {
        logger_->Clear();
        EXPECT_EQ(Report(), kRefused);
        EXPECT_EQ(Details(), (std::vector<std::pair<std::wstring, std::wstring>>{{L"1", L"crash 1"}}));
    }
    EXPECT_TRUE(logger_->Has(LogLevel::Info,
                             L"Collecting metric has exceeded max failure times. Delete event from list ''"));

    sink_->SetPolicy(nullptr);
    EXPECT_EQ(Report(), S_OK);
    EXPECT_EQ(Details(), (std::vector<std::pair<std::wstring, std::wstring>>{{L"1", L"crash 2"}}));
}

TEST_F(AppCrashMetricTest, ARefusedFlagWritesNoDetailAndCostsNoCrashAChance)
{
    Crashes(2);
    sink_->Refuse(kCrashFlagKey, E_FAIL);
    for (int report = 1; report <= 5; ++report) {
        EXPECT_EQ(Report(), E_FAIL);
        EXPECT_EQ(sink_->Writes().size(), 1u);
    }
    EXPECT_TRUE(logger_->Has(LogLevel::Error,
                             L"Failed to write metric flag 'appcrash|contained'." + SystemTextSuffix(E_FAIL)));
    sink_->SetPolicy(nullptr);
    EXPECT_EQ(Report(), S_OK);
    EXPECT_EQ(Details().size(), 2u);
}

TEST_F(AppCrashMetricTest, ANullSinkFailsThroughTheFlagAndLosesNothing)
{
    Crashes(2);
    for (int report = 1; report <= 4; ++report) {
        EXPECT_EQ(metric_->CollectMetric(nullptr, 0), E_POINTER);
    }
    EXPECT_TRUE(logger_->Has(LogLevel::Error,
                             L"Failed to write metric flag 'appcrash|contained'." + SystemTextSuffix(E_POINTER)));
    EXPECT_EQ(Report(), S_OK);
    EXPECT_EQ(Details().size(), 2u);
}

TEST_F(AppCrashMetricTest, NothingPendingWritesNothingAndLogsOnlyAtInfoLevel)
{
    logger_->SetLevels(0x3);
    EXPECT_EQ(Report(), S_OK);
    EXPECT_EQ(metric_->CollectMetric(nullptr, 0), S_OK);
    EXPECT_TRUE(sink_->Writes().empty());
    EXPECT_TRUE(logger_->Lines().empty());
}

// The whole road: an event written to the simulated log, reported through the provider.
TEST(AppCrashThroughProvider, ACrashEventReachesTheHostsSinkExactlyOnce)
{
    auto* logger = new RecordingLogger(0x7);
    auto* context = new CountingHostContext();
    auto* sink = new RecordingSink();
    {
        ComPtr<IZephDataProvider> provider;
        ASSERT_EQ(ComObject<CProvider>::Create(IID_PPV_ARGS(&provider)), S_OK);
        ASSERT_EQ(provider->SetHostInterfaces(logger, context), S_OK);
        const unique_bstr name = MakeBstr(L"EventLog|EventLog_AppCrash");
        ASSERT_EQ(provider->SubscribeMetric(name.get(), MakeMetricConfig(kChannel, kQuery).Get()), S_OK);

        WriteEvent(kChannel, kCrashPublisher, kCrashEventId, kCrashTime,
                   L"Faulting application name: demo.exe, version: 1.0.0.0\r\nException code: 0xc0000005");
        WaitForDeliveries();
        ASSERT_EQ(provider->QueryMetric(name.get(), 0, sink), S_OK);
        ASSERT_EQ(provider->QueryMetric(name.get(), 0, sink), S_OK);

        const auto writes = sink->Writes();
        ASSERT_EQ(writes.size(), 2u);
        EXPECT_EQ(writes[0].key, L"appcrash|contained");
        EXPECT_EQ(writes[0].text, L"true");
        EXPECT_EQ(writes[1].key, L"appcrash|crash_details|*");
        EXPECT_EQ(writes[1].name, L"1");
        EXPECT_EQ(writes[1].text, L"Faulting application name: demo.exe, version: 1.0.0.0<br />Exception code: "
                                  L"0xc0000005" + std::wstring(kCrashTimeText) + HostNamePart());
        EXPECT_EQ(logger->Texts(), (std::vector<std::wstring>{L"created metric 'EventLog|EventLog_AppCrash'.",
                                                              L"Subscribed from metric 'EventLog|EventLog_AppCrash'.",
                                                              L"No application crash available"}));
        ASSERT_EQ(provider->UnsubscribeAllMetrics(), S_OK);
    }
    EXPECT_EQ(logger->References(), 1u);
    EXPECT_EQ(context->References(), 1u);
    EXPECT_EQ(sink->References(), 1u);
    logger->Release();
    context->Release();
    sink->Release();
}

}  // namespace
}  // namespace zeph
