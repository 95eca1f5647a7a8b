// Writes Windows events read from event XML into the simulated event log. An event
// goes in only when some metric subscribes to its channel: the others are counted and
// skipped, as a log of the whole machine holds channels nobody here watches.
#pragma once

#include "configuration.h"
#include "event_xml.h"
#include "simulator_controls.h"

#include <string>
#include <vector>

namespace zeph::host {

// The <channel> of every configured metric, each once.
std::vector<std::wstring> SubscribedChannels(const Configuration& configuration);

class EventReplayer {
public:
    EventReplayer(const SimulatorControls& simulator, std::vector<std::wstring> subscribedChannels)
        : simulator_(simulator), channels_(std::move(subscribedChannels))
    {
    }

    // False when the event's channel is not subscribed (nothing written). A refused write
    // throws HostError(ScenarioFailed). Deliveries are not waited for.
    bool Write(const EventXml& event) const;

private:
    bool Subscribed(const std::wstring& channel) const;

    const SimulatorControls& simulator_;
    std::vector<std::wstring> channels_;
};

}  // namespace zeph::host
