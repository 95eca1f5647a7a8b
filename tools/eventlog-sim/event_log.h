// The simulated log itself: channels with their subscriptions, and the publishers
// that events have named. A write costs O(subscriptions of its channel); nothing is
// kept once the deliveries are made.
#pragma once

#include "eventlog_sim.h"
#include "subscription.h"

#include <functional>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace evtsim {

class Channel {
public:
    void Attach(std::shared_ptr<Subscription> subscription);
    void Detach(const Subscription* subscription);

    // Queues the event for every subscription whose query matches; makeRecord runs once, and
    // only if some subscription wants the event. The channel lock is held while queueing so
    // that concurrent writers put their events in one order for everyone.
    void Publish(const std::wstring& publisherKey, USHORT eventId,
                 const std::function<std::shared_ptr<EventRecord>()>& makeRecord);
    void PublishError(DWORD errorCode);

private:
    std::mutex mutex_;
    std::vector<std::shared_ptr<Subscription>> subscriptions_;
};

class EventLog {
public:
    EventLog();

    DWORD AddChannel(std::wstring_view name);
    std::shared_ptr<Channel> FindChannel(std::wstring_view name) const;

    DWORD Write(const EVT_SIM_EVENT& event);
    DWORD Write(const EVT_SIM_EVENT_DATA& event);
    DWORD DeliverError(std::wstring_view channel, DWORD errorCode);

    bool KnowsPublisher(const std::wstring& publisherKey) const;

private:
    void RememberPublisher(const std::wstring& publisherKey);
    // Checks the channel and remembers the publisher; null when the channel does not exist.
    std::shared_ptr<Channel> Prepare(LPCWSTR channel, const std::wstring& publisherKey);

    mutable std::shared_mutex channelsMutex_;
    std::unordered_map<std::wstring, std::shared_ptr<Channel>> channels_;  // by folded name

    mutable std::shared_mutex publishersMutex_;
    std::unordered_set<std::wstring> publishers_;  // folded names
};

EventLog& Log();

}  // namespace evtsim
