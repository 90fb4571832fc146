// SPDX-License-Identifier: Apache-2.0
#include "broker/Model.h"

#include "broker/OutstandingPublications.h"
#include "broker/Wire.h"

#include "QuilMqtt/QueueOwner.h"

#include <algorithm>
#include <map>
#include <numeric>

namespace OrvLab {

using QUILMQTT::QueueOwner;

void Model::BeginLifecycle() {
    disturbed = lifecycleUnderWay++ != 0;
    known = known && !disturbed;
}

void Model::EndLifecycle(bool isUp) {
    const bool alone = --lifecycleUnderWay == 0 && !disturbed;
    if (lifecycleUnderWay == 0)
        disturbed = false;
    known = alone;
    up = isUp;
    ++session;
    stoppedInSession = delivery != Delivery::ON;
}

void Model::BeginConnect(const std::string& topic) {
    BeginLifecycle();
    sessionBegun = sim.Steps();
    sessionMade = 0;
    formerMayCall = !known || up;
    connectsHere = connectsUnclear = 0;
    ++connecting;
    ++connectsBegun;
    quiet = false;
    delivery = stopping > 0 ? Delivery::UNCLEAR : Delivery::ON;
    willTopic = topic;
    if (!topic.empty())
        willTopics.insert(topic);
}

void Model::EndConnect(bool connected) {
    --connecting;
    sessionMade = sim.Steps();
    EndLifecycle(connected);
}

int Model::BeginDisconnect() {
    BeginLifecycle();
    return connecting > 0 ? -1 : connectsBegun;
}

void Model::EndDisconnect(int connectsBefore) {
    EndLifecycle(false);
    if (connectsBefore == connectsBegun && !quiet)
        quietSince = sim.Steps();
    quiet = quiet || connectsBefore == connectsBegun;
}

int Model::BeginStop() {
    ++stopping;
    return connecting > 0 ? -1 : connectsBegun;
}

void Model::EndStop(int connectsBefore) {
    --stopping;
    stoppedInSession = true;
    delivery = connectsBefore == connectsBegun ? Delivery::OFF : Delivery::UNCLEAR;
}

void Model::Destroyed() {
    destroyed = true;
}

std::size_t Model::BeginPublish(const std::string& topic, const std::string& payload, bool retained, bool assured) {
    publications.push_back({topic, payload, retained, assured, ++events});
    publications.back().session = Session();
    return publications.size() - 1;
}

void Model::EndPublish(std::size_t which, int status) {
    Publication& one = publications[which];
    one.ended = ++events;
    one.status = status;
    if (one.session != Session())
        one.session = 0;
    const bool canNeverFit = OrvPlatform::OutstandingPublications::Cost(one.topic, one.payload) > limit;
    if (status != QueueOwner::MALFORMED_TOPIC && (status == QueueOwner::PAYLOAD_TOO_LARGE) != canNeverFit)
        Fail("status " + std::to_string(status) + " for " + std::to_string(one.payload.size()) + " bytes on " +
             one.topic);
    if (status == QueueOwner::FAILED)
        Fail("a publication fails on " + one.topic + " though nothing is wanting");
    if (!IsState(one) && (status == QueueOwner::HANDED_OVER) != (one.handed == 1))
        Fail("status " + std::to_string(status) + " for " + one.topic + ", handed over " + std::to_string(one.handed) +
             " times");
}

std::size_t Model::BeginSubscribe(const std::string& filter, int qos) {
    subscriptions.push_back({filter, qos, ++events});
    subscriptions.back().session = Session();
    return subscriptions.size() - 1;
}

void Model::EndSubscribe(std::size_t which, bool made) {
    Subscription& one = subscriptions[which];
    one.ended = ++events;
    one.made = made;
    if (one.session != Session())
        one.session = 0;
}

void Model::BeginCallback(const std::string& which) {
    if (sim.Self().locks != 0)
        Fail("a lock is held in " + which);
    if (destroyed)
        Fail(which + " after the destruction");
    dispatched = sim.Self().since;
    if (callbacks++ != 0)
        Fail(which + " while another callback is under way");
    // It is under way from the moment in which the lock is released for it.
    if (quiet && sim.Self().since >= quietSince)
        Fail(which + " begins after Disconnect has returned");
    if (delivery == Delivery::OFF)
        Fail(which + " begins after StopDelivery has returned");
}

void Model::EndCallback() {
    --callbacks;
}

// Once for each connection, and not for one of a former session.
void Model::Connected() {
    ++connects;
    if (dispatched < sessionBegun)
        return;
    if (formerMayCall && (sessionMade == 0 || dispatched < sessionMade))
        ++connectsUnclear;
    else
        ++connectsHere;
    const int accepted = Wire::ConnectionsOf(name).accepted;
    if (IsKnownUp() && lifecycleUnderWay == 0 && connectsHere > accepted)
        Fail("OnConnect " + std::to_string(connectsHere) + " times for " + std::to_string(accepted) + " connections");
}

void Model::CheckConnects() const {
    const auto [accepted, stood] = Wire::ConnectionsOf(name);
    if (!stoppedInSession && (connectsHere > accepted || connectsHere + connectsUnclear < stood))
        Fail("OnConnect " + std::to_string(connectsHere) + " to " + std::to_string(connectsHere + connectsUnclear) +
             " times for " + std::to_string(accepted) + " connections, of which " + std::to_string(stood) + " stood");
}

// The broker counts its messages on each connection. None may be missing between two that arrive.
void Model::Message(const std::string& payload) {
    const auto point = payload.find('.');
    const int connection = std::stoi(payload.substr(0, point));
    const int message = std::stoi(payload.substr(point + 1));
    if (connection < lastConnection)
        Fail("message " + payload + " of a former connection");
    if (connection != lastConnection)
        lastMessage = 0;
    if (message != lastMessage + 1 && !stoppedInSession)
        Fail("message " + payload + " comes after number " + std::to_string(lastMessage));
    lastConnection = connection;
    lastMessage = message;
}

void Model::Completed(const std::string& topic) {
    int handed = 0;
    int completed = 1;
    for (Publication& one : publications) {
        if (one.topic != topic || !one.assured)
            continue;
        handed += one.handed;
        completed += one.completed;
    }
    if (completed > handed)
        Fail(std::to_string(completed) + " acknowledgements for " + std::to_string(handed) + " publications on " +
             topic);
    for (Publication& one : publications) {
        if (one.topic == topic && one.assured && one.completed < one.handed) {
            ++one.completed;
            break;
        }
    }
}

void Model::Handed(const Packet& packet) {
    if (sim.Self().locks != 1)
        Fail("a publication is handed over under " + std::to_string(sim.Self().locks) + " locks");
    const std::string& topic = packet.topic;
    const std::string& payload = packet.payload;
    const auto isIt = [&](const Publication& one) {
        return one.topic == topic && one.payload == payload && one.retained == packet.retained &&
               one.assured == (packet.qos > 0);
    };
    // Only deletions can be alike; then it is one that may still be published.
    auto found = std::find_if(publications.rbegin(), publications.rend(),
                              [&](const Publication& one) { return isIt(one) && !IsSuperseded(one); });
    if (found == publications.rend())
        found = std::find_if(publications.rbegin(), publications.rend(), isIt);
    if (found == publications.rend())
        Fail(topic + "=" + payload + " is published, which nobody has asked for");
    ++found->handed;
    if (!IsState(*found) && found->ended != 0)
        Fail(topic + "=" + payload + " is handed over after the answer");
    if (IsState(*found) && IsSuperseded(*found))
        Fail(topic + "=" + payload + " is published, which was superseded");
}

bool Model::WasRequested(const Publication& one) {
    return one.status != QueueOwner::MALFORMED_TOPIC && one.status != QueueOwner::PAYLOAD_TOO_LARGE;
}

/// Another was asked for after this one, on the same topic, and has been answered.
bool Model::IsSuperseded(const Publication& one) const {
    return std::any_of(publications.begin(), publications.end(), [&](const Publication& other) {
        return other.topic == one.topic && (other.retained || !one.retained) && one.ended != 0 && other.ended != 0 &&
               other.begun > one.ended && WasRequested(other);
    });
}

/// All others on its topic have been answered before it was asked for.
bool Model::IsLatestForSure(const Publication& one) const {
    return std::all_of(publications.begin(), publications.end(), [&](const Publication& other) {
        return &other == &one || other.topic != one.topic || other.ended < one.begun;
    });
}

std::set<std::string> Model::RetainedTopics() const {
    std::set<std::string> topics;
    for (const Publication& one : publications)
        if (one.retained && WasRequested(one))
            topics.insert(one.topic);
    return topics;
}

/// There may not have been room for all that it has to announce again.
bool Model::MayHaveForgotten() const {
    std::map<std::string, std::size_t> largest;
    for (const Publication& one : publications)
        if (one.retained && WasRequested(one))
            largest[one.topic] =
                std::max(largest[one.topic], OrvPlatform::OutstandingPublications::Cost(one.topic, one.payload));
    return limit < std::accumulate(
                       largest.begin(), largest.end(), std::size_t{0},
                       [](std::size_t sum, const auto& topic) { return sum + topic.second; });
}

// More than one when their calls overlapped.
std::vector<const Model::Publication*> Model::LatestRetained(const std::string& topic) const {
    std::vector<const Publication*> latest;
    for (const Publication& one : publications)
        if (one.retained && one.topic == topic && WasRequested(one) && !IsSuperseded(one))
            latest.push_back(&one);
    return latest;
}

void Model::CheckSettled(const ScriptedBroker& broker) const {
    if (!IsKnownUp())
        return;
    if (broker.Of(name) == nullptr)
        Fail("is not connected again");
    CheckConnects();
    for (const Publication& one : publications) {
        // On its own topic, so that an acknowledgement tells which one it is for.
        if (one.session != session || one.status != QueueOwner::HANDED_OVER || !one.assured ||
            one.topic.rfind("p/", 0) != 0)
            continue;
        if (!broker.HasReceived(one.payload))
            Fail(one.topic + "=" + one.payload + " was accepted and never arrived");
        if (one.completed != 1 && !stoppedInSession)
            Fail(one.topic + "=" + one.payload + " was accepted and never acknowledged");
    }
    if (MayHaveForgotten())
        return;
    for (const std::string& topic : RetainedTopics()) {
        const auto latest = LatestRetained(topic);
        // Before this connection was made: not announced, unless it was made by itself since.
        if (std::any_of(latest.begin(), latest.end(), [&](const auto* one) { return one->session != session; }))
            continue;
        CheckRetained(broker, topic, "");
    }
}

void Model::CheckRestored(const Connection& connection, const ScriptedBroker& broker) const {
    std::set<std::pair<std::string, int>> subscribed;
    std::vector<Packet> announced;
    for (const Packet& packet : connection.received) {
        if (packet.type == Packet::Type::SUBSCRIBE) {
            if (!announced.empty())
                Fail("subscribes after it has announced");
            subscribed.emplace(packet.topic, packet.qos);
        }
        if (packet.type == Packet::Type::PUBLISH && !packet.again)
            announced.push_back(packet);
    }
    CheckConnects();
    CheckSubscribed(subscribed);
    CheckAnnounced(announced);
    if (MayHaveForgotten())
        return;
    for (const std::string& topic : RetainedTopics())
        CheckRetained(broker, topic, "after a reconnection ");
}

void Model::CheckRetained(const ScriptedBroker& broker, const std::string& topic, const std::string& when) const {
    const auto latest = LatestRetained(topic);
    const auto found = broker.Retained().find(topic);
    const std::string kept = found == broker.Retained().end() ? "" : found->second;
    if (std::none_of(latest.begin(), latest.end(), [&](const auto* one) { return one->payload == kept; }))
        Fail(when + "the broker has " + topic + "=\"" + kept + "\", last asked was \"" + latest.back()->payload + "\"");
}

/// Another was made after this one, for the same messages.
bool Model::IsReplaced(const Subscription& one) const {
    return std::any_of(subscriptions.begin(), subscriptions.end(), [&](const Subscription& other) {
        return other.filter == one.filter && other.made && other.begun > one.ended;
    });
}

void Model::CheckSubscribed(const std::set<std::pair<std::string, int>>& subscribed) const {
    for (const Subscription& one : subscriptions)
        if (one.session == session && one.made && !IsReplaced(one) &&
            std::none_of(subscribed.begin(), subscribed.end(),
                         [&](const auto& other) { return other.first == one.filter; }))
            Fail("has not subscribed again to " + one.filter);
    for (const auto& [filter, qos] : subscribed)
        if (std::none_of(subscriptions.begin(), subscriptions.end(),
                         [&, asked = filter, grade = qos](const Subscription& one) {
                             return one.filter == asked && one.qos == grade && one.made && !IsReplaced(one) &&
                                    (one.session == session || one.session == 0);
                         }))
            Fail("has subscribed to " + filter + ", for which nobody has asked");
}

void Model::CheckAnnounced(const std::vector<Packet>& announced) const {
    std::set<std::string> missing = RetainedTopics();
    for (const Packet& packet : announced) {
        const auto asked = std::find_if(publications.begin(), publications.end(), [&](const Publication& one) {
            return one.topic == packet.topic && one.payload == packet.payload && one.retained == packet.retained &&
                   one.assured == (packet.qos > 0) && WasRequested(one) && !IsSuperseded(one);
        });
        if (asked == publications.end())
            Fail("announces " + Text(packet) + ", which is not what was asked last");
        if (packet.retained && missing.erase(packet.topic) == 0)
            Fail("announces " + packet.topic + " twice");
    }
    if (!missing.empty() && !MayHaveForgotten())
        Fail("does not announce " + *missing.begin());
    const bool hasPlain =
        std::any_of(announced.begin(), announced.end(), [](const Packet& packet) { return !packet.retained; });
    for (const Publication& one : publications)
        if (!one.retained && one.topic == willTopic && one.session == session && WasRequested(one) && !hasPlain &&
            IsLatestForSure(one))
            Fail("does not announce " + one.topic + "=" + one.payload + ", the latest on the will's topic");
}

void Model::CheckReceived(const Connection& connection) const {
    if (delivery != Delivery::ON || connection.messages == 0)
        return;
    if (lastConnection != connection.number || lastMessage != static_cast<int>(connection.messages))
        Fail("message " + std::to_string(connection.number) + "." + std::to_string(connection.messages) +
             " was not delivered, the latest was " + std::to_string(lastConnection) + "." +
             std::to_string(lastMessage));
}

} // namespace OrvLab
