// The crash metric on its own, fed by the simulated event log, and its text rules.
#include "appcrash/app_crash_metric.h"
#include "config_element.h"
#include "machine_name.h"
#include "metric/diagnostics.h"
#include "provider/metric_factory.h"
#include "support/host_logger.h"
#include "support/host_value_sink.h"
#include "simulated_event_log.h"
#include "win/com_strings.h"
#include "win/hresult.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;
using Details = std::vector<std::pair<std::wstring, std::wstring>>;

constexpr wchar_t kChannel[] = L"Application";
constexpr HRESULT kRefused = static_cast<HRESULT>(0x80070005);
const ULONGLONG kCrashTime = FileTimeOf(2021, 3, 7, 14, 5, 9, 250);
constexpr wchar_t kCrashTimeText[] = L"<br />Crash Time: 2021-03-07 14:05:09";

std::wstring HostNamePart()
{
    return L"<br />Host Name: " + MachineName();
}

std::wstring WithSystemText(const std::wstring& text, HRESULT code)
{
    const ErrorText suffix = AppendErrorText(L"", code);
    return text + (suffix.systemText ? FormatString(suffix.format.c_str(), code, suffix.systemText.get())
                                     : FormatString(suffix.format.c_str(), code));
}

// The length is what the text is reserved with: exact, so a crash text takes one block.
TEST(CrashText, OnlyCarriageReturnLineFeedPairsBecomeBreaks)
{
    for (const auto& [message, replaced] : {std::pair{L"A\r\nB\r\n", L"A<br />B<br />"},
                                            {L"A\n\rB", L"A\n\rB"},
                                            {L"\r\r\n\n", L"\r<br />\n"},
                                            {L"lone\rcr and lone\nlf\r", L"lone\rcr and lone\nlf\r"}}) {
        EXPECT_EQ(ReplaceLineBreaks(message), replaced);
        EXPECT_EQ(ReplacedLineBreaksLength(message), std::wcslen(replaced)) << message;
    }
}

// The texts are measured and copied eight units at a time: a pair, a lone CR or
// LF must count wherever it falls relative to those chunks, at the end too.
TEST(CrashText, BreaksAnywhereInLongTextsAgreeWithAPlainReplacement)
{
    std::mt19937 random(20261125);
    const wchar_t alphabet[] = {L'\r', L'\n', L'x', L'<'};
    const PrivateHeap heap;
    for (int round = 0; round < 3000; ++round) {
        std::wstring message(random() % 70, L' ');
        for (wchar_t& c : message) {
            c = alphabet[random() % std::size(alphabet)];
        }
        std::wstring expected = message;
        for (size_t at = expected.find(L"\r\n"); at != std::wstring::npos; at = expected.find(L"\r\n", at + 6)) {
            expected.replace(at, 2, L"<br />");
        }
        ASSERT_EQ(ReplaceLineBreaks(message), expected) << "round " << round;
        ASSERT_EQ(ReplacedLineBreaksLength(message), expected.size()) << "round " << round;
        // A reported text is written over in place when it has the room, and
        // made anew when the breaks outgrow it.
        CrashText text(random() % 160, L'?', PrivateHeapAllocator<wchar_t>(heap));
        AssignDetailText(text, message, L"T", L"H");
        ASSERT_EQ(std::wstring(text.begin(), text.end()), expected + L"TH") << "round " << round;
    }
}

TEST(CrashText, TimesPadEverythingButTheYear)
{
    EXPECT_EQ(FormatCrashTime(FileTimeOf(2021, 3, 7, 4, 5, 9, 999)), L"<br />Crash Time: 2021-03-07 04:05:09");
    EXPECT_EQ(FormatCrashTime(0), L"<br />Crash Time: 1601-01-01 00:00:00");
    EXPECT_EQ(FormatCrashTime(FileTimeOf(30000, 12, 31, 23, 59, 58)), L"<br />Crash Time: 30000-12-31 23:59:58");
}

class AppCrashMetricTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        const auto config = MakeMetricConfig(kChannel, L"*[System[Provider[@Name='Application Error']]]");
        ASSERT_EQ(metric_->Subscribe(config.Get()), S_OK);
        ASSERT_NE(metric_->SubscriptionHandle(), nullptr);
    }

    void Crash(const std::wstring& message, ULONGLONG time = kCrashTime)
    {
        WriteEvent(kChannel, kCrashPublisher, 1000, time, message);
    }
    HRESULT Report()
    {
        sink_->Clear();
        return metric_->CollectMetric(sink_.Get(), 0);
    }
    // Instance name and message part of each detail written.
    Details Written() const
    {
        Details details;
        for (const SinkWrite& write : sink_->Writes()) {
            if (write.key == kCrashDetailsKey) {
                details.emplace_back(write.name, write.text.substr(0, write.text.find(L"<br />")));
            }
        }
        return details;
    }

    ComPtr<HostLogger> logger_ = Adopt(new HostLogger(0x7));
    ComPtr<HostValueSink> sink_ = Adopt(new HostValueSink());
    std::unique_ptr<CAppCrashMetric> metric_ =
        std::make_unique<CAppCrashMetric>(kAppCrashMetricName, logger_.Get(), nullptr);
};

TEST_F(AppCrashMetricTest, AReportWritesTheFlagThenEachDetailOnceAsMessageTimeAndHost)
{
    Crash(L"A\r\nB\r\n");
    Crash(L"");
    Crash(L"same", FileTimeOf(1999, 1, 2, 3, 4, 5));
    Crash(L"same", FileTimeOf(1999, 1, 2, 3, 4, 5));
    WaitForDeliveries();
    ASSERT_EQ(Report(), S_OK);

    const std::wstring host = HostNamePart();
    const std::vector<std::wstring> expected = {
        L"A<br />B<br />" + std::wstring(kCrashTimeText) + host,
        kCrashTimeText + host,
        L"same<br />Crash Time: 1999-01-02 03:04:05" + host,
        L"same<br />Crash Time: 1999-01-02 03:04:05" + host,
    };
    const auto writes = sink_->Writes();
    ASSERT_EQ(writes.size(), expected.size() + 1);
    EXPECT_EQ(writes[0].key + L" " + writes[0].name + L" " + writes[0].text,
              L"appcrash|contained appcrash|contained true");
    for (size_t i = 0; i < writes.size(); ++i) {
        EXPECT_EQ(writes[i].type, VT_BSTR);
        if (i > 0) {
            EXPECT_EQ(writes[i].key, L"appcrash|crash_details|*");
            EXPECT_EQ(writes[i].name, std::to_wstring(i));
            EXPECT_EQ(writes[i].text, expected[i - 1]);
        }
    }

    logger_->Clear();
    EXPECT_EQ(Report(), S_OK);
    EXPECT_EQ(metric_->CollectMetric(nullptr, 0), S_OK);  // nothing to write needs no sink
    EXPECT_TRUE(sink_->Writes().empty());
    EXPECT_EQ(logger_->Lines(), (std::vector<LogLine>(2, {LogLevel::Info, L"No application crash available"})));
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
    for (const auto& [query, message] :
         {std::pair{&FailingSizeQuery, L"first"}, std::pair{&FailingNameQuery, L"second"},
          std::pair{&::GetComputerNameExW, L"third"}}) {
        metric_->UseComputerNameQuery(query);
        Crash(message);
        WaitForDeliveries();
    }
    EXPECT_EQ(
        logger_->Lines(),
        (std::vector<LogLine>{{LogLevel::Error, L"Failed to query the NetBIOS name buffer length"},
                              {LogLevel::Error, WithSystemText(L"Failed to query the NetBIOS name of the local machine",
                                                               HResultFromWin32(ERROR_ACCESS_DENIED))}}));
    ASSERT_EQ(Report(), S_OK);
    const auto writes = sink_->Writes();
    ASSERT_EQ(writes.size(), 4u);
    EXPECT_EQ(writes[1].text, L"first" + std::wstring(kCrashTimeText));
    EXPECT_EQ(writes[2].text, L"second" + std::wstring(kCrashTimeText));
    EXPECT_EQ(writes[3].text, L"third" + std::wstring(kCrashTimeText) + HostNamePart());
}

TEST_F(AppCrashMetricTest, ARefusedDetailStaysWithTheOnesBehindItUntilItsThirdRefusalDropsIt)
{
    for (const wchar_t* message : {L"crash 1", L"crash 2", L"crash 3"}) {
        Crash(message);
    }
    WaitForDeliveries();
    sink_->Refuse(kCrashDetailsKey, kRefused, L"2");
    EXPECT_EQ(Report(), kRefused);
    EXPECT_EQ(Written(), (Details{{L"1", L"crash 1"}, {L"2", L"crash 2"}}));
    EXPECT_EQ(logger_->Texts(), std::vector<std::wstring>{
                                    WithSystemText(L"Failed to collect metric 'appcrash|crash_details|*'.", kRefused)});

    // Refused twice more as the first detail: the third refusal drops it, and only it.
    sink_->Refuse(kCrashDetailsKey, kRefused, L"1");
    EXPECT_EQ(Report(), kRefused);
    logger_->Clear();
    EXPECT_EQ(Report(), kRefused);
    EXPECT_EQ(
        logger_->Lines().back(),
        (LogLine{LogLevel::Info, L"Collecting metric has exceeded max failure times. Delete event from list ''"}));
    sink_->SetPolicy(nullptr);
    EXPECT_EQ(Report(), S_OK);
    EXPECT_EQ(Written(), (Details{{L"1", L"crash 3"}}));
}

// What no host and no event may do: cost a pending crash its chance, or change its text.
TEST_F(AppCrashMetricTest, OddEventsAndFailingHostsLoseNothingPending)
{
    std::wstring hugeMessage, hugeDetail;  // 3000 lines of about a hundred characters
    for (int line = 0; line < 3000; ++line) {
        const std::wstring text = L"frame " + std::to_wstring(line) + L": " + std::wstring(90, L'x');
        hugeMessage += text + L"\r\n";
        hugeDetail += text + L"<br />";
    }
    Crash(hugeMessage);
    Crash(L"%s %d %n %08lx %% <br /> &amp;");
    WriteEvent(kChannel, kCrashPublisher, 1000, kCrashTime, L"no time", EVT_SIM_NO_TIME);
    WriteEvent(kChannel, kCrashPublisher, 1000, kCrashTime, L"never reported",
               EVT_SIM_UNFORMATTABLE | EVT_SIM_NO_TIME | EVT_SIM_NO_EVENT_ID);
    WaitForDeliveries();

    const std::wstring flagFailed = L"Failed to write metric flag 'appcrash|contained'.";
    for (int query = 0; query < 3; ++query) {
        EXPECT_EQ(metric_->CollectMetric(nullptr, 0), E_POINTER);
    }
    sink_->SetPolicy([](const std::wstring&, const std::wstring&) { return E_FAIL; });
    for (int query = 0; query < 4; ++query) {
        EXPECT_EQ(Report(), E_FAIL);
    }
    EXPECT_EQ(sink_->Writes().size(), 1u) << "no detail after a refused flag";
    EXPECT_TRUE(logger_->Has(LogLevel::Error, WithSystemText(flagFailed, E_POINTER)));
    EXPECT_TRUE(logger_->Has(LogLevel::Error, WithSystemText(flagFailed, E_FAIL)));
    sink_->SetPolicy([](const std::wstring&, const std::wstring&) { return S_FALSE; });  // a success too

    ASSERT_EQ(Report(), S_OK);
    const std::wstring host = HostNamePart();
    EXPECT_EQ(Written().size(), 3u);
    const auto writes = sink_->Writes();
    ASSERT_EQ(writes.size(), 4u);
    EXPECT_EQ(writes[1].text, hugeDetail + kCrashTimeText + host);
    EXPECT_EQ(writes[2].text, L"%s %d %n %08lx %% <br /> &amp;" + std::wstring(kCrashTimeText) + host);
    EXPECT_EQ(writes[3].text, L"no time" + host);
}

}  // namespace
}  // namespace zeph
