// The layering metric fed any message text and any event values: a message
// moves a time stamp only when it begins with one of the agent's wordings, a
// Tessera comes only from a mount line of a manager's response, and every
// event is logged with the message it was handled with.
#include "corpus.h"
#include "event_fields.h"
#include "layering_model.h"
#include "scratch.h"
#include "target.h"

#include <gtest/gtest.h>

namespace zeph::fuzz {

namespace {

constexpr wchar_t kMetric[] = L"eventlog|eventlog_quillon";
constexpr wchar_t kPublisher[] = L"drovesvc";
constexpr size_t kMostEvents = 8;
// The service's messages come as they are: the simulated log has no template of its.
constexpr DWORD kFlags = EVT_SIM_UNFORMATTABLE | EVT_SIM_NO_TIME | EVT_SIM_NO_EVENT_ID | kErrorDelivery;
constexpr ULONGLONG kLogOnTime = 133601473314180000ull;  // 2024-05-14 08:02:11.418 UTC
constexpr ULONGLONG kSecond = 10000000;

// The agent's second wording, which the demo does not use.
const std::vector<std::wstring> kOtherWording = {
    L"User is logging in",
    L"Response received from Manager for LOGIN request\r\nMOUNTED-READ;C:\\Tesseras\\office.vhdx;t-01\r\n"
    L"MOUNTED-READ;C:\\Tesseras\\tools.vhdx;t-02\r\n",
    L"New volume event (mounted): \\\\?\\Volume{3e1f0a2b} (VolumeType 2)",
    L"Last volume loaded",
    L"User is logging out",
    L"User is logging off",
    L"Response 200 from Manager",
};

class LayeringMessage final : public Target {
public:
    const char* Name() const override { return "LayeringMessage"; }

    std::vector<Input> Seeds() override
    {
        std::vector<Input> seeds;
        for (const auto* messages : {&DemoCorpus().layeringMessages, &kOtherWording}) {
            std::vector<FuzzEvent> events;
            for (const std::wstring& message : *messages) {
                events.push_back({message, kLogOnTime + events.size() * kSecond, 0, 7});
            }
            events.resize(std::min(events.size(), kMostEvents));
            seeds.push_back(InputOf(events));
        }
        return seeds;
    }

    Dictionary Pieces() override
    {
        std::vector<std::wstring> texts = DemoCorpus().layeringMessages;
        texts.insert(texts.end(), kOtherWording.begin(), kOtherWording.end());
        texts.insert(texts.end(), {L"MOUNTED-READ;", L";", L"(VolumeType 2)", L"VolumeType: 2", L"LOGIN",
                                   L"Manager status 200 response"});
        return MessagePieces(std::move(texts));
    }

    void Steer(Input& input, Mutator& mutator) override { SteerEventFlags(input, mutator, kMostEvents); }

    void Run(const Input& input) override
    {
        const std::vector<FuzzEvent> events = EventsOf(input, kMostEvents, kFlags);
        LayeringModel model;
        for (const FuzzEvent& event : events) {
            model.Deliver(event);  // no layering service here: its log has nothing
        }

        const RedirectedKey machine(HKEY_LOCAL_MACHINE);  // no layering service installed
        const ProviderSession session(kMetric, kPublisher);
        for (const FuzzEvent& event : events) {
            session.Write(event);
        }
        session.WaitForDeliveries();
        ExpectWrites(session.Query(), model.Query(std::nullopt));

        std::vector<std::wstring> agentLines = session.Logger().Texts();
        std::erase_if(agentLines, [](const std::wstring& line) { return !line.starts_with(L"Quillon Agent Event: "); });
        ExpectSameTexts(agentLines, model.AgentLines(), "event log line");
    }
};

}  // namespace

TEST(Fuzz, LayeringMessage)
{
    LayeringMessage target;
    Fuzz(target);
}

}  // namespace zeph::fuzz
