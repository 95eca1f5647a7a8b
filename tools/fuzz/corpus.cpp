#include "corpus.h"

#include "event_xml.h"
#include "eventlog-sim/eventlog_sim.h"
#include "message_recorder.h"
#include "provider_session.h"
#include "scenario.h"
#include "target.h"
#include "win/unique_resource.h"

#include <gtest/gtest.h>

#include <variant>

namespace zeph::fuzz {

namespace {

constexpr wchar_t kCrashPublisher[] = L"Application Error";
constexpr wchar_t kLayeringPublisher[] = L"drovesvc";

// The crash messages of exported events, as the event log formats them from
// their insertion strings (or takes the message they were rendered with).
std::vector<std::wstring> FormattedMessages(const std::vector<host::EventXml>& events)
{
    constexpr wchar_t kChannel[] = L"ZephFuzzCorpus";
    ::EvtSimAddChannel(kChannel);
    const MessageRecorder recorder(kChannel, kCrashPublisher);
    for (const host::EventXml& event : events) {
        std::vector<LPCWSTR> insertions;
        for (const std::wstring& text : event.insertions) {
            insertions.push_back(text.c_str());
        }
        const EVT_SIM_EVENT_DATA data{kChannel,
                                      event.publisher.c_str(),
                                      event.id,
                                      event.timeCreated,
                                      static_cast<DWORD>(insertions.size()),
                                      insertions.data(),
                                      event.renderedMessage ? event.renderedMessage->c_str() : nullptr,
                                      0};
        EXPECT_EQ(::EvtSimWriteEventData(&data), static_cast<DWORD>(ERROR_SUCCESS));
    }
    EXPECT_TRUE(::EvtSimWaitForDeliveries(kDeliveryDeadlineMs));
    std::vector<std::wstring> messages;
    for (const auto& message : recorder.Messages()) {
        if (message) {
            messages.push_back(*message);  // another publisher's event has none
        }
    }
    return messages;
}

Corpus LoadCorpus(const std::wstring& folder)
{
    Corpus corpus;
    corpus.configFile = ReadFileBytes(folder + L"\\zeph-host.xml");
    corpus.scenarioFile = ReadFileBytes(folder + L"\\scenario.xml");
    corpus.eventsFile = ReadFileBytes(folder + L"\\application-errors.xml");

    const host::EventFile exported = host::ParseEventText(host::DecodeText(corpus.eventsFile));
    EXPECT_FALSE(exported.fault.has_value()) << "the demo's exported events do not read";
    corpus.crashMessages = FormattedMessages(exported.events);
    for (const host::EventXml& event : exported.events) {
        if (event.publisher == kCrashPublisher) {
            corpus.crashInsertions.push_back(event.insertions);
        }
    }

    const host::Scenario scenario = host::LoadScenario(folder + L"\\scenario.xml");
    for (const host::ScenarioStep& step : scenario.steps) {
        if (const auto* event = std::get_if<host::EventStep>(&step)) {
            (event->publisher == kLayeringPublisher ? corpus.layeringMessages : corpus.crashMessages)
                .push_back(event->message);
        } else if (const auto* append = std::get_if<host::AppendStep>(&step)) {
            corpus.serviceLog += append->text;
        }
    }
    EXPECT_FALSE(corpus.crashMessages.empty() || corpus.layeringMessages.empty() || corpus.serviceLog.empty())
        << "the demo's scenario has crashes, layering events and a service log";
    return corpus;
}

}  // namespace

std::string ReadFileBytes(const std::wstring& path)
{
    const unique_file file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
    EXPECT_TRUE(file) << "cannot read " << testing::PrintToString(path);
    std::string bytes;
    char buffer[65536];
    DWORD read = 0;
    while (file && ::ReadFile(file.get(), buffer, sizeof buffer, &read, nullptr) && read > 0) {
        bytes.append(buffer, read);
    }
    return bytes;
}

const Corpus& DemoCorpus()
{
    static const Corpus corpus = LoadCorpus(CurrentSettings().corpusFolder);
    return corpus;
}

}  // namespace zeph::fuzz
