// SPDX-License-Identifier: Apache-2.0
// What becomes of each message that the broker sends.
#include "client/Edge.h"
#include "client/Story.h"
#include "client/Words.h"

#include <algorithm>
#include <utility>

namespace OrvLab {

using namespace Texts;

namespace {

constexpr int BOOTING = 2;

std::string Upper(std::string text) {
    for (char& one : text)
        if (one >= 'a' && one <= 'z')
            one = static_cast<char>(one - 32);
    return text;
}

std::string Shown(const std::string& message) {
    return message.size() > 128 ? message.substr(0, 128) + "..." : message;
}

std::string LastPiece(std::string topic) {
    while (!topic.empty() && topic.back() == '/')
        topic.pop_back();
    return topic.substr(topic.rfind('/') + 1);
}

std::string ByClient(const char* tag, const std::string& text) {
    return Edge::Record("trace", "OrvStackClient", tag, text);
}

} // namespace

void Story::Handed(const std::string& topic, const std::string& payload) {
    messages.push_back({topic, payload, epoch, witness.Now()});
}

std::vector<std::string> Story::ReadInit(const Message& message, bool& isReload) const {
    const std::string context = "(topic=" + message.topic + ", message=" + Shown(message.payload) + ")";
    const std::string word = Upper(message.payload);
    if (word != "ENABLED" && word != "DISABLED" && word != "RELOAD")
        return {Edge::Record("warning", "OrvSessionMqtt", "", context + ": Message is not handled")};
    isReload = word == "RELOAD";
    return {Edge::Record("trace", "OrvSessionMqtt", "OnPublish",
                         context + ": Calling OnFeatureInitIndication(" + word + ")..."),
            ByClient("OnFeatureInitIndication",
                     "(App=" + feature + ", initState=" + word + "): Calling OnAppActionIndication(" + word + ")..."),
            "called OnAppActionIndication " + word};
}

std::vector<std::string> Story::Dispatch(const Message& message, bool& isReload) const {
    const std::string& topic = message.topic;
    const std::string& payload = message.payload;
    const std::string context = "(topic=" + topic + ", message=" + Shown(payload) + ")";
    const auto calling = [&](const std::string& text) {
        return Edge::Record("trace", "OrvSessionMqtt", "OnPublish", context + ": Calling " + text);
    };
    const std::string own = FEATURES + feature;
    if (topic == own + "/init")
        return ReadInit(message, isReload);
    if (topic == own + "/available")
        return {calling("OnFeatureAvailableIndication(" + Shown(payload) + ") ...")};
    if (topic == own + "/supported")
        return {calling("OnFeatureSupportedIndication(" + Shown(payload) + ") ...")};
    if (topic == GUID)
        return {calling("OnDeviceProbeIndication()..."),
                ByClient("OnDeviceProbeIndication",
                         "(guid=" + payload + "): Calling OnDeviceProbeIndication(" + payload + ")..."),
                "called OnDeviceProbeIndication " + payload};
    if (topic == PANEL_CONNECTION) {
        const std::string online = payload == "UP" ? "1" : "0";
        return {calling("OnDeviceConnectionStatusIndication()..."),
                ByClient("OnDeviceConnectionStatusIndication",
                         "(online=" + online + "): Calling OnDeviceOnlineStatusIndication(" + online + ")..."),
                "called OnDeviceOnlineStatusIndication " + online};
    }
    for (std::size_t item = 0; item < 5; ++item) {
        const std::string name = CELLULAR[item];
        if (topic == CELLULAR_TOPICS[item])
            return {calling("OnDeviceCellularStatusIndication()..."),
                    ByClient("OnDeviceCellularStatusIndication", "(status=" + name + ", value=" + payload +
                                                                     "): Calling OnDeviceCellularStatusIndication(" +
                                                                     name + ", " + payload + ")..."),
                    "called OnDeviceCellularStatusIndication " + name + " " + payload};
    }
    if (topic.find(READINESS) != std::string::npos) {
        const std::string ready = payload == "ready" ? "1" : "0";
        return {calling("OnFeatureShutdownReadinessIndication()..."),
                ByClient("OnFeatureShutdownReadinessIndication",
                         "(App=" + LastPiece(topic) + ", ready=" + ready +
                             "): Calling OnFeatureShutdownReadinessIndication()..."),
                "called OnFeatureShutdownReadinessIndication " + LastPiece(topic) + " " + ready};
    }
    return {Edge::Record("trace", "OrvSessionMqtt", "OnPublish", context + ": Message not handled")};
}

void Story::Delivered(const Effect& effect) {
    if (Destroys(effect))
        return;
    if (isGone)
        Fail("after its end it does: " + effect.what);
    WatchStatus(effect, dispatchStoresStatus);
    if (!GoesOn(effect))
        BeginDispatch(effect);
}

/// Whether it is the next thing that the message under way leads to.
bool Story::GoesOn(const Effect& effect) {
    const auto may = [&](bool booting) {
        const auto is = [&](int status) { return (status == BOOTING) == booting; };
        return std::any_of(statuses.begin(), statuses.end(), is) ||
               std::any_of(statusesAtDispatch.begin(), statusesAtDispatch.end(), is);
    };
    if (compared == 1 && !refusal.empty() && effect.what == refusal.front()) {
        if (!may(true))
            Fail("a RELOAD is refused though the application is not booting");
        expected = {expected.front()};
        expected.insert(expected.end(), refusal.begin(), refusal.end());
        refusal.clear();
    }
    if (compared == expected.size() || effect.what != expected[compared])
        return false;
    if (compared == 1 && !refusal.empty() && !may(false))
        Fail("a RELOAD reaches an application that is booting");
    ++compared;
    return true;
}

/// Messages arrive in their order. One may be missing only after the connection or the client has ended; one that was
/// under way when the connection ended may come late.
void Story::BeginDispatch(const Effect& effect) {
    if (IsDelivering() && !IsCutShort())
        Fail("a message should: " + expected[compared] + "; it does: " + effect.what);
    // It is under way from the moment in which the broker connection's lock is released for it.
    if (isQuiet && witness.sim.Self().since >= quietSince)
        Fail("after DeInit has returned it does: " + effect.what);
    bool isReload = false;
    if (!messages.empty() && Dispatch(messages.front(), isReload).front() == effect.what) {
        TakeMessage(messages, true, effect);
    } else if (TakeMessage(former, false, effect)) {
        former.clear();
    } else if (!TakeMessage(messages, true, effect)) {
        Fail("without a message it does: " + effect.what);
    }
}

bool Story::TakeMessage(std::deque<Message>& from, bool inOrder, const Effect& effect) {
    for (; !from.empty(); from.pop_front()) {
        const Message& message = from.front();
        bool isReload = false;
        std::vector<std::string> words = Dispatch(message, isReload);
        if (words.front() != effect.what) {
            if (inOrder && message.epoch == epoch)
                Fail("a message on " + message.topic + " should: " + words.front() + "; it does: " + effect.what);
            continue;
        }
        from.pop_front();
        expected = std::move(words);
        compared = 1;
        dispatchBegan = effect.number;
        handlerThereAtDispatch = handlerThere;
        statusesAtDispatch = statuses;
        refusal.clear();
        if (isReload)
            refusal = {ByClient("OnFeatureInitIndication",
                                "(App=" + feature +
                                    ", initState=RELOAD): Rejecting RELOAD request. This application "
                                    "is already in state BOOTING"),
                       ByClient("AppStatusRequest", "(status=booting)"),
                       Edge::Record("trace", "OrvSessionMqtt", "FeatureInitRequest",
                                    "(App=" + feature + ", initState=booting)"),
                       Edge::Publication(session, false, false, FEATURES + feature + "/init", "booting")};
        return true;
    }
    return false;
}

/// Nobody is there to be told.
bool Story::IsCutShort() const {
    return compared == 1 && (!handlerThereAtDispatch || handlerLost >= dispatchBegan);
}

bool Story::HasSeenAll() const {
    return (!IsDelivering() || IsCutShort()) &&
           std::none_of(messages.begin(), messages.end(), [&](const Message& one) { return one.epoch == epoch; });
}

bool Story::IsQuiet() const {
    return events.empty() && routeUnits.empty() && waiting.empty() && units.empty();
}

std::map<std::string, std::set<std::string>> Story::Retained() const {
    std::map<std::string, std::set<std::string>> retained;
    for (const auto& [topic, all] : asked)
        for (const Asked& one : all)
            if (std::none_of(all.begin(), all.end(), [&](const Asked& other) { return other.begun > one.answered; }))
                retained[topic].insert(one.payload);
    return retained;
}

} // namespace OrvLab
