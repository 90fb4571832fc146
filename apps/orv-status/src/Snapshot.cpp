// SPDX-License-Identifier: Apache-2.0
#include "Snapshot.h"

#include "Pieces.h"

namespace OrvStatus {

namespace {

using AppState = ApplicationView::State;

const BrokerView::Message* Find(const BrokerView& broker, const char* topic) {
    const auto found = broker.topics.find(topic);
    return found == broker.topics.end() ? nullptr : &found->second;
}

bool HasService(const ConnmanView& connman, const std::string& interface) {
    for (const ConnmanView::Service& service : connman.services) {
        if (service.interface == interface && (service.state == "ready" || service.state == "online"))
            return true;
    }
    return false;
}

int ExitStatus(const Verdict& verdict) {
    if (verdict.state == "disconnected" || verdict.state == "disabled")
        return 20;
    if (verdict.state != "connected")
        return 30;
    if (verdict.path == "ethernet")
        return 0;
    return verdict.path == "cellular" ? 10 : 30;
}

void TakeFromApplication(const ApplicationView& application, Verdict& verdict) {
    verdict.state = application.cloudState;
    verdict.path = application.cloudPath;
    verdict.family = application.cloudFamily;
    verdict.since = application.cloudSince.utc;
    verdict.sinceMonotonic = application.cloudSince.monotonic;
    verdict.reason = application.cloudReason;
    verdict.basis = Joined({application.name, " says so"});
}

/// The topic is retained and nobody signs it, so who said it may be gone; the path can only be the default route's.
void InferFromTopic(const Snapshot& snapshot, Verdict& verdict) {
    const BrokerView::Message* const said = Find(snapshot.broker, CLOUD_TOPIC);
    constexpr const char* none = "there is no status file of gateway-app, and ";
    if (snapshot.broker.state != Known::PRESENT) {
        verdict.basis = Joined({none, "the broker is ", Text(snapshot.broker.state)});
    } else if (said == nullptr || (said->payload != "true" && said->payload != "false")) {
        verdict.basis = Joined({none, "nobody has published ", CLOUD_TOPIC});
    } else if (said->payload == "false") {
        verdict.state = "disconnected";
        verdict.path = "none";
        verdict.basis = Joined({"inferred from ", CLOUD_TOPIC});
    } else {
        verdict.state = "connected";
        verdict.path = snapshot.network.state == Known::PRESENT ? snapshot.network.Path() : "unknown";
        verdict.basis = Joined({"inferred from ", CLOUD_TOPIC, " and the kernel's default route"});
    }
}

} // namespace

std::string NetworkView::Path() const {
    if (defaults.empty())
        return "none";
    for (const Interface& interface : interfaces) {
        if (interface.name == defaults.front().interface && !interface.role.empty())
            return interface.role;
    }
    return "other";
}

const char* LedState(const BrokerView& broker, const char* topic) {
    const BrokerView::Message* const led = Find(broker, topic);
    if (led != nullptr && led->payload == "On")
        return "on";
    if (led != nullptr && led->payload == "Off")
        return "off";
    return led != nullptr && led->payload == "Blink" ? "blink" : "unknown";
}

Verdict Judge(const Snapshot& snapshot) {
    Verdict verdict;
    switch (snapshot.application.state) {
    case AppState::RUNNING:
        TakeFromApplication(snapshot.application, verdict);
        break;
    case AppState::ABSENT:
    case AppState::UNREADABLE:
        InferFromTopic(snapshot, verdict);
        break;
    case AppState::ENDED:
    case AppState::GONE:
    case AppState::STUCK:
        // What it has published is retained, so the topics still say what it said last.
        verdict.basis = Joined({"gateway-app ", snapshot.application.state == AppState::ENDED ? "has " : "is ",
                                Text(snapshot.application.state), ": ", snapshot.application.reason});
        break;
    }
    verdict.exitStatus = ExitStatus(verdict);
    return verdict;
}

std::string NoFailOver(const Snapshot& snapshot) {
    const NetworkView& network = snapshot.network;
    if (network.state == Known::PRESENT && network.Path() == "cellular")
        return {};
    if (snapshot.application.state == AppState::RUNNING && !snapshot.application.noFailOver.empty())
        return snapshot.application.noFailOver;
    if (!snapshot.hasEndpoint)
        return "gateway.ini names no endpoint to prove a path with. Set endpoint = HOST in [cloud]";
    for (const NetworkView::Interface& interface : network.interfaces) {
        if (interface.role != "cellular")
            continue;
        if (!interface.exists)
            return Joined({"there is no interface ", interface.name, ". Is the modem there (ip link)?"});
        if (!interface.running)
            return Joined({interface.name, " has no link. Is the modem registered with a network?"});
        if (interface.addresses.empty())
            return Joined({interface.name, " has no address. Connect its service (connmanctl services)"});
        if (snapshot.connman.state == Known::PRESENT && !HasService(snapshot.connman, interface.name))
            return Joined({"ConnMan has no connected service on ", interface.name, " (connmanctl services)"});
    }
    return {};
}

const char* Text(Known state) {
    switch (state) {
    case Known::UNKNOWN:
        break;
    case Known::AWAY:
        return "away";
    case Known::REFUSING:
        return "refusing";
    case Known::PRESENT:
        return "present";
    }
    return "unknown";
}

const char* Text(AppState state) {
    switch (state) {
    case AppState::ABSENT:
        return "absent";
    case AppState::UNREADABLE:
        return "unreadable";
    case AppState::RUNNING:
        return "running";
    case AppState::ENDED:
        return "ended";
    case AppState::GONE:
        return "gone";
    case AppState::STUCK:
        break;
    }
    return "stuck";
}

} // namespace OrvStatus
