#include "corpus.h"

#include "event_xml.h"
#include "eventlog-sim/eventlog_sim.h"
#include "metric/event_log_handle.h"
#include "scenario.h"
#include "target.h"
#include "win/unique_resource.h"

#include <gtest/gtest.h>

#include <cwchar>
#include <mutex>
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
    struct Delivered {
        std::mutex mutex;
        std::vector<std::wstring> messages;
    } delivered;
    const auto callback = [](EVT_SUBSCRIBE_NOTIFY_ACTION action, PVOID context, EVT_HANDLE event) -> DWORD {
        if (action != EvtSubscribeActionDeliver) {
            return 0;
        }
        const unique_evt_handle publisher(::EvtOpenPublisherMetadata(nullptr, kCrashPublisher, nullptr, 0, 0));
        DWORD used = 0;
        if (::EvtFormatMessage(publisher.get(), event, 0, 0, nullptr, EvtFormatMessageEvent, 0, nullptr, &used) ||
            ::GetLastError() != ERROR_INSUFFICIENT_BUFFER) {
            return 0;  // another publisher's event
        }
        std::wstring message(used, L'\0');
        if (::EvtFormatMessage(publisher.get(), event, 0, 0, nullptr, EvtFormatMessageEvent, used, message.data(),
                               &used)) {
            message.resize(std::wcslen(message.c_str()));
            auto& into = *static_cast<Delivered*>(context);
            const std::lock_guard lock(into.mutex);
            into.messages.push_back(message);
        }
        return 0;
    };
    unique_evt_handle subscription(
        ::EvtSubscribe(nullptr, nullptr, kChannel, L"*", nullptr, &delivered, callback, EvtSubscribeToFutureEvents));
    EXPECT_TRUE(subscription) << "subscribing the corpus channel: " << ::GetLastError();
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
    EXPECT_TRUE(::EvtSimWaitForDeliveries(60000));
    subscription.reset();
    return delivered.messages;
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
        corpus.insertions.insert(corpus.insertions.end(), event.insertions.begin(), event.insertions.end());
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
