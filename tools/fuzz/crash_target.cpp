// The crash metric fed any message text, any insertion strings and any event
// values: every crash whose message can be formatted is reported, in order, as
// the message with each CR LF pair replaced by "<br />", then its time (when
// the event has one) and the host's name. The message of an event given by its
// insertion strings is what the event log formats for a subscriber of our own.
#include "corpus.h"
#include "event_fields.h"
#include "write_check.h"
#include "machine_name.h"
#include "message_recorder.h"
#include "target.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <optional>

namespace zeph::fuzz {

namespace {

constexpr wchar_t kMetric[] = L"eventlog|eventlog_appcrash";
constexpr wchar_t kPublisher[] = L"Application Error";
constexpr size_t kMostEvents = 4;
constexpr DWORD kFlags = EVT_SIM_UNFORMATTABLE | EVT_SIM_NO_TIME | EVT_SIM_NO_EVENT_ID | kErrorDelivery | kDataEvent;
constexpr ULONGLONG kSampleTime = 133601471212070000ull;  // 2024-05-14 07:58:41.207 UTC

std::wstring Detail(const std::wstring& message, const FuzzEvent& event, const std::wstring& hostName)
{
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
        for (const auto& insertions : corpus.crashInsertions) {
            std::wstring joined;
            for (const std::wstring& insertion : insertions) {
                joined += insertion + kInsertionEnd;
            }
            seeds.push_back(InputOf({{joined, kSampleTime, kDataEvent, 1000}}));
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
        for (const auto& insertions : DemoCorpus().crashInsertions) {
            texts.insert(texts.end(), insertions.begin(), insertions.end());
        }
        return MessagePieces(std::move(texts));
    }

    void Steer(Input& input, Mutator& mutator) override { SteerEventFlags(input, mutator, kMostEvents); }

    void Run(const Input& input) override
    {
        const std::vector<FuzzEvent> events = EventsOf(input, kMostEvents, kFlags);
        const MessageRecorder recorder(L"Application", kPublisher);
        std::vector<SinkWrite> writes;
        {
            const ProviderSession session(kMetric, kPublisher);
            for (const FuzzEvent& event : events) {
                session.Write(event);
            }
            session.WaitForDeliveries();
            writes = session.Query();
        }

        const std::vector<std::optional<std::wstring>> formatted = recorder.Messages();
        std::vector<SinkWrite> expected;
        size_t delivered = 0;
        for (const FuzzEvent& event : events) {
            if ((event.flags & kErrorDelivery) != 0) {
                continue;  // no event
            }
            std::optional<std::wstring> message;
            if ((event.flags & kDataEvent) != 0) {
                message = delivered < formatted.size() ? formatted[delivered] : std::nullopt;
            } else if ((event.flags & EVT_SIM_UNFORMATTABLE) == 0) {
                message = BeforeNul(event.message);
            }
            ++delivered;
            if (!message) {
                continue;  // no message, no crash
            }
            if (expected.empty()) {
                expected.push_back({L"appcrash|contained", L"appcrash|contained", VT_BSTR, L"true"});
            }
            expected.push_back({L"appcrash|crash_details|*", std::to_wstring(expected.size()), VT_BSTR,
                                Detail(*message, event, hostName_)});
        }
        EXPECT_EQ(formatted.size(), delivered) << "events delivered to a subscriber beside the provider";
        ExpectWrites(writes, expected);
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
