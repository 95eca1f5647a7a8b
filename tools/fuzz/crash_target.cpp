// The crash metric fed any message text and any event values: every crash
// whose message can be formatted is reported, in order, as the message with
// each CR LF pair replaced by "<br />", then its time (when the event has
// one) and the host's name.
#include "corpus.h"
#include "event_fields.h"
#include "write_check.h"
#include "machine_name.h"
#include "target.h"

#include <gtest/gtest.h>

#include <cwchar>

namespace zeph::fuzz {

namespace {

constexpr wchar_t kMetric[] = L"eventlog|eventlog_appcrash";
constexpr wchar_t kPublisher[] = L"Application Error";
constexpr size_t kMostEvents = 4;
constexpr ULONGLONG kSampleTime = 133601471212070000ull;  // 2024-05-14 07:58:41.207 UTC

std::wstring Detail(const FuzzEvent& event, const std::wstring& hostName)
{
    const std::wstring message = BeforeNul(event.message);
    std::wstring detail;
    for (size_t i = 0; i < message.size(); ++i) {
        if (message[i] == L'\r' && i + 1 < message.size() && message[i + 1] == L'\n') {
            detail += L"<br />";
            ++i;
        } else {
            detail += message[i];
        }
    }
    if ((event.flags & EVT_SIM_NO_TIME) == 0) {
        const FILETIME time = {static_cast<DWORD>(event.time), static_cast<DWORD>(event.time >> 32)};
        SYSTEMTIME utc = {};  // a time the system cannot convert reads as zeros
        ::FileTimeToSystemTime(&time, &utc);
        wchar_t text[64];
        std::swprintf(text, 64, L"<br />Crash Time: %d-%02d-%02d %02d:%02d:%02d", utc.wYear, utc.wMonth, utc.wDay,
                      utc.wHour, utc.wMinute, utc.wSecond);
        detail += text;
    }
    return detail + L"<br />Host Name: " + hostName;
}

class CrashMessage final : public Target {
public:
    const char* Name() const override { return "CrashMessage"; }

    std::vector<Input> Seeds() override
    {
        std::vector<Input> seeds;
        const Corpus& corpus = DemoCorpus();
        for (const std::wstring& message : corpus.crashMessages) {
            seeds.push_back(InputOf({{message, kSampleTime, 0, 1000}}));
        }
        const std::wstring& first = corpus.crashMessages.front();
        seeds.push_back(InputOf({{first, kSampleTime, EVT_SIM_NO_TIME, 1000},
                                 {L"", 0, 0, 1000},
                                 {first, kSampleTime, EVT_SIM_UNFORMATTABLE, 1000},
                                 {first, 0, kErrorDelivery, 0}}));
        return seeds;
    }

    Dictionary Pieces() override
    {
        std::vector<std::wstring> texts = DemoCorpus().crashMessages;
        texts.insert(texts.end(), DemoCorpus().insertions.begin(), DemoCorpus().insertions.end());
        return MessagePieces(std::move(texts));
    }

    void Steer(Input& input, Mutator& mutator) override { SteerEventFlags(input, mutator, kMostEvents); }

    void Run(const Input& input) override
    {
        const std::vector<FuzzEvent> events = EventsOf(input, kMostEvents);
        std::vector<SinkWrite> expected;
        for (const FuzzEvent& event : events) {
            if ((event.flags & (EVT_SIM_UNFORMATTABLE | kErrorDelivery)) != 0) {
                continue;  // no message, no crash
            }
            if (expected.empty()) {
                expected.push_back({L"appcrash|contained", L"appcrash|contained", VT_BSTR, L"true"});
            }
            expected.push_back(
                {L"appcrash|crash_details|*", std::to_wstring(expected.size()), VT_BSTR, Detail(event, hostName_)});
        }

        const ProviderSession session(kMetric, kPublisher);
        for (const FuzzEvent& event : events) {
            session.Write(event);
        }
        session.WaitForDeliveries();
        ExpectWrites(session.Query(), expected);
    }

private:
    const std::wstring hostName_ = test::MachineName();
};

}  // namespace

TEST(Fuzz, CrashMessage)
{
    CrashMessage target;
    Fuzz(target);
}

}  // namespace zeph::fuzz
