// Seeded property tests: the text rules of the two metrics against small
// reference models, on generated inputs built from the fragments the rules
// care about. A failure names a round that reproduces.
#include "appcrash/app_crash_metric.h"
#include "appcrash/crash_text.h"
#include "config_element.h"
#include "layering/quillon_event.h"
#include "layering/quillon_log_collector.h"
#include "provider/metric_factory.h"
#include "recording_sink.h"
#include "reliability_host.h"
#include "simulated_event_log.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cwctype>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace zeph {
namespace {

using Microsoft::WRL::ComPtr;
using namespace test;
using Kind = QuillonEventKind;

// Joins count fragments drawn from pieces, or single random code units.
std::wstring Compose(std::mt19937& random, const std::vector<std::wstring>& pieces, int maxPieces)
{
    std::wstring text;
    const int count = static_cast<int>(random() % static_cast<unsigned>(maxPieces + 1));
    for (int i = 0; i < count; ++i) {
        if (random() % 8 == 0) {
            text += static_cast<wchar_t>(random() % 0x80);  // any ASCII unit, zero included
        } else {
            text += pieces[random() % pieces.size()];
        }
    }
    return text;
}

// ---- message classification

// The rules as a plain table, tried in order: a prefix and, for some, a part found anywhere.
struct Rule {
    std::wstring_view prefix;
    std::wstring_view part;
    Kind kind;
};
constexpr Rule kRules[] = {
    {L"User is logging in", L"", Kind::LogOn},
    {L"User is logging off", L"", Kind::LogOff},
    {L"Response 200 from Manager", L"", Kind::LogOnResponse},
    {L"Last volume loaded", L"", Kind::AllDone},
    {L"New volume event (mounted):", L"(VolumeType 2)", Kind::VolumesReady},
    {L"User is logging out", L"", Kind::LogOff},
    {L"Response received from Manager", L"LOGIN", Kind::LogOnResponse},
    {L"New volume finished processing", L"VolumeType: 2", Kind::VolumesReady},
    {L"All volumes finished processing", L"", Kind::AllDone},
};

Kind ClassifyModel(std::wstring_view message)
{
    for (const Rule& rule : kRules) {
        if (message.substr(0, rule.prefix.size()) == rule.prefix &&
            std::search(message.begin(), message.end(), rule.part.begin(), rule.part.end()) != message.end()) {
            return rule.kind;
        }
    }
    return Kind::Other;
}

// The wordings and second conditions (these weighted up), near misses of each, and fillers.
std::vector<std::wstring> ClassificationPieces()
{
    std::vector<std::wstring> pieces = {L" ", L"\r\n", L": ", L"(VolumeType 1)", L"VolumeType: 1", L"LOGOFF", L"login"};
    std::vector<std::wstring> wordings;
    for (const Rule& rule : kRules) {
        wordings.emplace_back(rule.prefix);
        for (int weight = 0; weight < 9 && !rule.part.empty(); ++weight) {
            wordings.emplace_back(rule.part);
        }
    }
    for (const std::wstring& wording : wordings) {
        std::wstring upper = wording;
        for (wchar_t& c : upper) {
            c = static_cast<wchar_t>(::towupper(c));
        }
        pieces.insert(pieces.end(), {wording, L" " + wording, wording.substr(0, wording.size() - 1), upper});
    }
    return pieces;
}

TEST(ClassifyPropertyTest, AgreesWithTheRuleChainOnGeneratedMessages)
{
    std::mt19937 random(7031);
    const std::vector<std::wstring> pieces = ClassificationPieces();
    std::array<int, 6> seen{};
    for (int round = 0; round < 20000; ++round) {
        // Half the messages start with a wording, where the rules look.
        const std::wstring lead(random() % 2 == 0 ? kRules[random() % std::size(kRules)].prefix : L"");
        const std::wstring message = lead + Compose(random, pieces, 4);
        const Kind expected = ClassifyModel(message);
        ASSERT_EQ(ClassifyEventMessage(message), expected) << "round " << round;
        ++seen[static_cast<size_t>(expected)];
    }
    // The generator reaches every kind often enough for the agreement to mean something.
    for (size_t kind = 0; kind < seen.size(); ++kind) {
        EXPECT_GT(seen[kind], 100) << "kind " << kind;
    }
}

// ---- mount entries

// Mount entries with the standard library's search, independent of the product's.
std::vector<TesseraEntry> MountModel(const std::wstring& text, size_t start)
{
    constexpr size_t npos = std::wstring::npos;
    const std::wstring token = L"MOUNTED-READ;";
    std::vector<TesseraEntry> found;
    for (size_t at = text.find(token, start); at != npos; at = text.find(token, at)) {
        const size_t path = at + token.size();
        const size_t separator = text.find(L';', path);
        const size_t lineEnd = separator == npos ? npos : text.find(L"\r\n", separator);
        if (lineEnd == npos) {
            break;
        }
        found.push_back({text.substr(separator + 1, lineEnd - separator - 1), text.substr(path, separator - path)});
        at = lineEnd;
    }
    return found;
}

const std::vector<std::wstring> kMountPieces = {
    L"MOUNTED-READ;C:\\T\\a.vhdx;id-7\r\n", L"MOUNTED-READ;C:\\T\\b.vhdx;", L"MOUNTED-READ;", L"MOUNTED-READ;",
    L"MOUNTED-READ",  L"MOUNTED-READ:", L"MOUNTED-",     L";",  L";", L";",  L"\r\n", L"\r\n", L"\r\n", L"\r",
    L"\n",            L"C:\\T\\a.vhdx", L"id-7",         L" ",  std::wstring(1, L'\0'), L"%s",
    L"Manager status 200 response",
};

TEST(MountEntryPropertyTest, AgreesWithTheModelFromAnyStartPositionAndLogsPathThenIdOfEach)
{
    std::mt19937 random(424242);
    size_t entries = 0;
    for (int round = 0; round < 20000; ++round) {
        const std::wstring text = Compose(random, kMountPieces, 16);
        const size_t start = random() % (text.size() + 3);
        const ComPtr<RecordingLogger> logger = Adopt(new RecordingLogger(0x7));
        CQuillonLogCollector collector(round % 10 == 0 ? logger.Get() : nullptr);
        EXPECT_TRUE(collector.ParseMountedTesseras(text, start));
        const std::vector<TesseraEntry> expected = MountModel(text, start);
        ASSERT_EQ(collector.GetTesseras(), expected) << "round " << round;
        entries += expected.size();

        // A log line is a C string: a zero unit ends the path or id in it.
        std::vector<std::wstring> lines;
        for (const TesseraEntry& entry : expected) {
            lines.push_back(L"Find tessera path: " + entry.path.substr(0, entry.path.find(L'\0')));
            lines.push_back(L"Find tessera id: " + entry.id.substr(0, entry.id.find(L'\0')));
        }
        ASSERT_EQ(logger->Texts(), round % 10 == 0 ? lines : std::vector<std::wstring>{}) << "round " << round;

        // Parsing again appends the same entries once more: no state but the list.
        EXPECT_TRUE(collector.ParseMountedTesseras(text, start));
        ASSERT_EQ(collector.GetTesseras().size(), 2 * expected.size()) << "round " << round;
    }
    EXPECT_GT(entries, 2000u) << "the generator should make many complete mount lines";
}

// ---- the collected service log

// What a log-on cycle collects: text from the begin size on, across a
// rotation when there was one. Each file's part ends at its first zero unit.
std::wstring UpToZero(const std::wstring& text)
{
    return text.substr(0, text.find(L'\0'));
}

TEST(CollectedLogPropertyTest, FindsTheResponseAndItsMountsInWhatWasWrittenSinceLogOn)
{
    ServiceInstall service;
    std::mt19937 random(1234);
    const std::vector<std::wstring> pieces = {
        L"Manager status 200 response", L"Manager status 200 response", L"MOUNTED-READ;C:\\T\\", L"x.vhdx",
        L";",  L"id-", L"\r\n", L"\r\n", L"text ", std::wstring(1, L'\0'),
    };
    int rotated = 0;
    int found = 0;
    for (int round = 0; round < 300; ++round) {
        const std::wstring before = std::wstring(random() % 200, L'.') + Compose(random, pieces, 6);
        const std::wstring tail = Compose(random, pieces, 10);
        const std::wstring fresh = Compose(random, pieces, 10);
        const bool rotate = random() % 3 == 0 && fresh.size() < before.size();
        service.WriteLog(before);
        service.WriteBackup(L"");

        CQuillonLogCollector collector(nullptr);
        ASSERT_TRUE(collector.PrepareCollectLog()) << "round " << round;
        service.AppendLog(tail);
        std::wstring collected = UpToZero(tail);
        if (rotate) {
            // The service renames the full log and starts a new one.
            service.RotateLog();
            service.WriteLog(fresh);
            collected = UpToZero(tail) + UpToZero(fresh);
            ++rotated;
        }

        const size_t response = collected.find(L"Manager status 200 response");
        EXPECT_EQ(collector.FindLoginResponse(), response != std::wstring::npos) << "round " << round;
        EXPECT_EQ(collector.CollectedText(), collected) << "round " << round;
        const std::vector<TesseraEntry> expected =
            response == std::wstring::npos ? std::vector<TesseraEntry>{} : MountModel(collected, response + 27);
        ASSERT_EQ(collector.GetTesseras(), expected) << "round " << round;
        found += response != std::wstring::npos ? 1 : 0;
    }
    EXPECT_GT(rotated, 30);
    EXPECT_GT(found, 50);
}

// ---- line breaks in crash texts

// Line-break replacement as a one-pass state machine: a carriage return is
// held back until the next unit shows whether it starts a pair.
std::wstring LineBreakModel(std::wstring_view message)
{
    std::wstring out;
    bool heldReturn = false;
    for (const wchar_t c : message) {
        if (heldReturn) {
            heldReturn = false;
            if (c == L'\n') {
                out += L"<br />";
                continue;
            }
            out += L'\r';
        }
        if (c == L'\r') {
            heldReturn = true;
        } else {
            out += c;
        }
    }
    if (heldReturn) {
        out += L'\r';
    }
    return out;
}

const std::vector<std::wstring> kBreakPieces = {
    L"\r\n", L"\r\n", L"\r", L"\n", L"\n\r", L"\r\r\n\n", L"<br />", L"<br", L"Faulting module",
    std::wstring(1, L'\0'), L"\xD83D\xDE00", L"\xDC00", L" ", L"%s",
};

// Long texts with zeros and surrogates against the model, and, as C strings,
// the first few hundred through the crash metric into their details.
TEST(LineBreakPropertyTest, TextsAndCrashDetailsAgreeWithTheStateMachine)
{
    constexpr wchar_t kChannel[] = L"ZephPropertyCrashes";
    AddChannels({kChannel});
    const ComPtr<RecordingSink> sink = Adopt(new RecordingSink());
    CAppCrashMetric metric(kAppCrashMetricName, nullptr, nullptr);
    ASSERT_EQ(metric.Subscribe(MakeMetricConfig(kChannel, L"*").Get()), S_OK);

    std::mt19937 random(5150);
    std::vector<std::wstring> messages;
    for (int round = 0; round < 4000; ++round) {
        std::wstring message = Compose(random, kBreakPieces, round % 10 == 0 ? 600 : 40);
        ASSERT_EQ(ReplaceLineBreaks(message), LineBreakModel(message)) << "round " << round;
        if (round % 10 != 0 && messages.size() < 400) {
            message.erase(std::remove(message.begin(), message.end(), L'\0'), message.end());
            messages.push_back(message);
            WriteEvent(kChannel, kCrashPublisher, 1000, FileTimeOf(2026, 11, 21, 6, 7, 8), message);
        }
    }
    WaitForDeliveries();
    ASSERT_EQ(metric.CollectMetric(sink.Get(), 0), S_OK);

    const std::wstring suffix = L"<br />Crash Time: 2026-11-21 06:07:08" + HostNamePart();
    const std::vector<SinkWrite> writes = sink->Writes();
    ASSERT_EQ(writes.size(), messages.size() + 1);
    for (size_t i = 0; i < messages.size(); ++i) {
        EXPECT_EQ(writes[i + 1].name, std::to_wstring(i + 1));
        ASSERT_EQ(writes[i + 1].text, LineBreakModel(messages[i]) + suffix) << "message " << i;
    }
}

}  // namespace
}  // namespace zeph
