#include "event_log.h"

#include "counters.h"
#include "message_templates.h"
#include "names.h"

#include <algorithm>

namespace evtsim {

namespace {

// The parts both forms of a written event have.
template <class Written>
std::shared_ptr<EventRecord> NewRecord(const Written& event, const std::wstring& publisherKey)
{
    auto record = std::make_shared<EventRecord>();
    record->channel = event.channel;
    record->publisher = event.publisher;
    record->publisherKey = publisherKey;
    record->eventId = event.eventId;
    record->timeCreated = event.timeCreated;
    record->flags = event.flags;
    return record;
}

}  // namespace

void Channel::Attach(std::shared_ptr<Subscription> subscription)
{
    std::lock_guard lock(mutex_);
    subscriptions_.push_back(std::move(subscription));
}

void Channel::Detach(const Subscription* subscription)
{
    std::shared_ptr<Subscription> removed;  // released outside the lock
    std::lock_guard lock(mutex_);
    auto it = std::find_if(subscriptions_.begin(), subscriptions_.end(),
                           [subscription](const auto& s) { return s.get() == subscription; });
    if (it != subscriptions_.end()) {
        removed = std::move(*it);
        subscriptions_.erase(it);
    }
}

void Channel::Publish(const std::wstring& publisherKey, USHORT eventId,
                      const std::function<std::shared_ptr<EventRecord>()>& makeRecord)
{
    std::shared_ptr<EventRecord> record;
    std::lock_guard lock(mutex_);
    for (const auto& subscription : subscriptions_) {
        if (!subscription->Filter().Matches(publisherKey, eventId)) {
            continue;
        }
        if (!record) {
            record = makeRecord();
        }
        subscription->Enqueue({record, 0});
    }
}

void Channel::PublishError(DWORD errorCode)
{
    std::lock_guard lock(mutex_);
    for (const auto& subscription : subscriptions_) {
        subscription->Enqueue({nullptr, errorCode});
    }
}

EventLog::EventLog()
{
    AddChannel(L"Application");
    AddChannel(L"System");
}

DWORD EventLog::AddChannel(std::wstring_view name)
{
    if (name.empty()) {
        return ERROR_INVALID_PARAMETER;
    }
    std::wstring key = FoldCase(name);
    std::unique_lock lock(channelsMutex_);
    auto [it, added] = channels_.try_emplace(std::move(key), nullptr);
    if (!added) {
        return ERROR_ALREADY_EXISTS;
    }
    try {
        it->second = std::make_shared<Channel>();
    } catch (...) {
        channels_.erase(it);
        throw;
    }
    return ERROR_SUCCESS;
}

std::shared_ptr<Channel> EventLog::FindChannel(std::wstring_view name) const
{
    if (name.empty()) {
        return nullptr;
    }
    const std::wstring key = FoldCase(name);
    std::shared_lock lock(channelsMutex_);
    auto it = channels_.find(key);
    return it == channels_.end() ? nullptr : it->second;
}

std::shared_ptr<Channel> EventLog::Prepare(LPCWSTR channelName, const std::wstring& publisherKey)
{
    std::shared_ptr<Channel> channel = FindChannel(channelName);
    if (channel) {
        RememberPublisher(publisherKey);
    }
    return channel;
}

DWORD EventLog::Write(const EVT_SIM_EVENT& event)
{
    if (event.channel == nullptr || event.publisher == nullptr || event.message == nullptr) {
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring publisherKey = FoldCase(event.publisher);
    std::shared_ptr<Channel> channel = Prepare(event.channel, publisherKey);
    if (!channel) {
        return ERROR_EVT_CHANNEL_NOT_FOUND;
    }
    channel->Publish(publisherKey, event.eventId, [&] {
        auto record = NewRecord(event, publisherKey);
        record->renderedMessage = event.message;  // the text stands as the event's own message
        return record;
    });
    ++GlobalCounters().eventsWritten;
    return ERROR_SUCCESS;
}

DWORD EventLog::Write(const EVT_SIM_EVENT_DATA& event)
{
    if (event.channel == nullptr || event.publisher == nullptr ||
        (event.insertionCount != 0 && event.insertions == nullptr)) {
        return ERROR_INVALID_PARAMETER;
    }
    for (DWORD i = 0; i < event.insertionCount; ++i) {
        if (event.insertions[i] == nullptr) {
            return ERROR_INVALID_PARAMETER;
        }
    }
    const std::wstring publisherKey = FoldCase(event.publisher);
    std::shared_ptr<Channel> channel = Prepare(event.channel, publisherKey);
    if (!channel) {
        return ERROR_EVT_CHANNEL_NOT_FOUND;
    }
    channel->Publish(publisherKey, event.eventId, [&] {
        auto record = NewRecord(event, publisherKey);
        record->insertions.assign(event.insertions, event.insertions + event.insertionCount);
        if (event.renderedMessage != nullptr) {
            record->renderedMessage = event.renderedMessage;
        }
        return record;
    });
    ++GlobalCounters().eventsWritten;
    return ERROR_SUCCESS;
}

DWORD EventLog::DeliverError(std::wstring_view channelName, DWORD errorCode)
{
    std::shared_ptr<Channel> channel = FindChannel(channelName);
    if (!channel) {
        return ERROR_EVT_CHANNEL_NOT_FOUND;
    }
    channel->PublishError(errorCode);
    return ERROR_SUCCESS;
}

bool EventLog::KnowsPublisher(const std::wstring& publisherKey) const
{
    {
        std::shared_lock lock(publishersMutex_);
        if (publishers_.count(publisherKey) != 0) {
            return true;
        }
    }
    return Templates().KnowsPublisher(publisherKey);  // registered with its message table
}

void EventLog::RememberPublisher(const std::wstring& publisherKey)
{
    if (KnowsPublisher(publisherKey)) {
        return;  // the usual case, under the shared lock only
    }
    std::unique_lock lock(publishersMutex_);
    publishers_.insert(publisherKey);
}

EventLog& Log()
{
    static EventLog* log = new EventLog;  // outlives delivery threads
    return *log;
}

}  // namespace evtsim
