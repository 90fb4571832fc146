// SPDX-License-Identifier: Apache-2.0
// What each call of the application makes the library do.
#include "client/Edge.h"
#include "client/SimulatedFiles.h"
#include "client/Story.h"
#include "client/Words.h"

namespace OrvLab {

using namespace Texts;

namespace {

constexpr const char* CLIENT = "OrvStackClient";
constexpr const char* SESSION = "OrvSessionMqtt";

std::string OfFeature(const std::string& feature, const char* suffix) {
    return FEATURES + feature + suffix;
}

} // namespace

const char* const Story::FILTERS[9] = {"/orv/apps_control/features/#",
                                       "/orv/panel/guid",
                                       "/orv/panel/connection_status",
                                       "/orv/modem/imei",
                                       "/orv/modem/sim/iccid",
                                       "/orv/modem/sim/technology",
                                       "/orv/modem/sim/provider",
                                       "/orv/modem/sim/strength",
                                       "/orv/apps_control/features/shutdown_readiness/+"};

void Story::Publish(Replay& replay, bool retained, const std::string& topic, const std::string& payload,
                    const char* warning) {
    const std::int64_t status = replay.Expect(Edge::Publication(session, retained, false, topic, payload));
    if (retained)
        asked[topic].push_back({payload, replay.Latest().number, replay.Latest().answered});
    if (status != 0 && warning != nullptr)
        replay.ExpectRecord("warning", SESSION, "", warning);
}

void Story::CompareEvent(Unit& unit) {
    Call& call = *unit.call;
    if (unit.first <= lastEventSeen)
        Fail("two events are worked on at the same time");
    Replay replay(call);
    replay.ExpectRecord("trace", CLIENT, "EventUpdateRequest", std::string("(event=") + EVENTS[call.value] + ")");
    ApplyEvent(call.value);
    Leds(replay);
    const bool absent = !cloud && !WanPath();
    replay.ExpectRecord("trace", SESSION, "StatusExtNetRequest", std::string("(NoExtNet=") + (absent ? "1)" : "0)"));
    Publish(replay, true, NO_EXT_NET, Word(absent), NOT_PUBLISHED);
    if (replay.TakeBeginningWith("put on top ").empty())
        replay.Fail("tell the route");
    unit.cloud = cloud;
    unit.ethernet = ethernetIp;
    unit.cellular = cellularIp;
    unit.isCompared = true;
    Files(replay, call);
    lastEventSeen = replay.Reached();
    if (call.value <= 1) {
        replay.ExpectRecord("trace", SESSION, "StatusEntConRequest", call.value == 0 ? "(EntCon=1)" : "(EntCon=0)");
        Publish(replay, true, ENT_CON, Word(call.value == 0), NOT_PUBLISHED);
    }
    replay.ExpectEnd();
}

void Story::Files(Replay& replay, const Call& call) {
    const std::string status = std::string("wrote ") + SimulatedFiles::STATUS + "=";
    const std::string error = std::string("wrote ") + SimulatedFiles::ERROR + "=";
    if (call.filesTroubled) {
        while (!replay.TakeBeginningWith(status).empty() ||
               (failure && (!replay.TakeBeginningWith(error).empty() || replay.Take("wall clock"))))
            ;
        errorText = failure ? "?" : "";
        return;
    }
    replay.Expect(status + StatusText());
    if (!failure)
        return;
    errorText = std::to_string(replay.Expect("wall clock") / SECOND) + ",Fatal Error Detected";
    replay.Expect(error + errorText);
}

void Story::CompareCreation(Call& call) {
    Replay replay(call);
    replay.Expect("log 0 OrvStackClient:30 std::shared_ptr<OrvStackSdk::IOrvStackClient> OrvStackSdk::CreateClient(): "
                  "OrvStackSdk::CreateClient()");
    replay.ExpectRecord("trace", SESSION, SESSION, "");
    replay.Expect("put on top " + RouteReference::ethernetName);
    const bool connected = replay.Expect("connect OrvRoute") != 0;
    if (connected == call.threw)
        Fail(connected ? "CreateClient throws though the broker has accepted"
                       : "CreateClient makes a route without a broker");
    if (connected) {
        Files(replay, call);
        replay.ExpectRecord("trace", CLIENT, CLIENT, "");
        replay.ExpectRecord("trace", SESSION, "SetHandler", "");
        isCreated = true;
    } else {
        replay.Expect("stop the delivery of OrvRoute");
        replay.Expect("log 5 libs/OrvStackSdk/src/OrvRoute:37 OrvStackSdk::OrvRoute::OrvRoute(): OrvRoute cannot "
                      "connect to MQTT broker.");
        replay.Expect("stop the delivery of " + session);
        replay.ExpectRecord("trace", SESSION, "~OrvSessionMqtt", "");
        isGone = true;
    }
    replay.ExpectEnd();
}

void Story::CompareInit(Call& call) {
    Replay replay(call);
    const std::string& name = call.text;
    replay.ExpectRecord("trace", CLIENT, "Init", "(appName=" + name + ")");
    const bool connected =
        replay.Expect("connect " + session + " will " + OfFeature(name, "/available") + "=false retained") != 0;
    isUp = connected && lastDisconnect < replay.Latest().number; // a callback may have disconnected
    replay.ExpectRecord(connected ? "info" : "warning", SESSION, "",
                        connected ? "Connected to the MQTT Broker" : "Could not connect to the MQTT Broker");
    const std::string word = CONFIRMATIONS[connected ? 0 : 1];
    replay.ExpectRecord("trace", SESSION, "InitRequest",
                        "(featureName=" + name + "): Calling OnInitConfirmation(" + word + ") ...");
    if (call.handlerThere) {
        replay.ExpectRecord("trace", CLIENT, "OnInitConfirmation",
                            "(confirmation=" + word + "): Calling OnInitConfirmation(" + word + ")...");
        replay.Expect("called OnInitConfirmation " + word);
    }
    if (connected) {
        for (const char* filter : FILTERS)
            replay.Expect("subscribe " + session + " " + filter + " 1");
        Publish(replay, true, ENT_CON, "false", nullptr);
    } else {
        replay.ExpectRecord("error", SESSION, "", "(featureName=" + name + "): Connection to MQTT broker failed.");
    }
    replay.ExpectEnd();
}

void Story::AppStatus(Replay& replay, int status) {
    const std::string text = STATUSES[status];
    replay.ExpectRecord("trace", CLIENT, "AppStatusRequest", "(status=" + text + ")");
    if (status <= 1) {
        const std::string what = status == 0 ? "supported" : "available";
        replay.ExpectRecord("trace", SESSION, status == 0 ? "FeatureSupportedRequest" : "FeatureAvailableRequest",
                            "(App=" + feature + ", " + what + "=true)");
        Publish(replay, false, OfFeature(feature, status == 0 ? "/supported" : "/available"), "true", NOT_PUBLISHED);
    } else if (status <= 5) {
        replay.ExpectRecord("trace", SESSION, "FeatureInitRequest", "(App=" + feature + ", initState=" + text + ")");
        Publish(replay, false, OfFeature(feature, "/init"), text, nullptr);
    } else {
        replay.ExpectRecord("warning", SESSION, "",
                            "(App=" + feature + ", initState=" + text + "): initState not handled");
    }
}

void Story::Action(Replay& replay, const std::string& app, int action) {
    const std::string text = ACTIONS[action];
    replay.ExpectRecord("trace", CLIENT, "AppActionRequest", "(App=" + app + ", AppAction=" + text + ")");
    if (action <= 2) {
        replay.ExpectRecord("trace", SESSION, "FeatureInitRequest", "(App=" + app + ", action=" + text + ")");
        Publish(replay, false, OfFeature(app, "/init"), ACTIONS_SENT[action], nullptr);
    } else {
        replay.ExpectRecord("warning", SESSION, "", "(App=" + app + ", action=" + text + "): action not handled");
    }
}

void Story::CompareOther(Call& call) {
    Replay replay(call);
    const std::string& name = call.name;
    if (name == "Init") {
        CompareInit(call);
        return;
    }
    if (call.threw) {
        replay.ExpectEnd();
        return;
    }
    if (name == "DeInit") {
        replay.ExpectRecord("trace", CLIENT, "DeInit", "");
        replay.ExpectRecord("trace", CLIENT, "Stop", "");
        replay.ExpectRecord("trace", SESSION, "DeInitRequest", "");
        replay.Expect("disconnect " + session);
    } else if (name == "Start") {
        replay.ExpectRecord("trace", CLIENT, "Start", "");
        AppStatus(replay, 1);
        AppStatus(replay, 2);
    } else if (name == "Stop" || name == "SetHandler") {
        replay.ExpectRecord("trace", CLIENT, name.c_str(), "");
    } else if (name == "AppStatusRequest") {
        AppStatus(replay, call.value);
    } else if (name == "AppActionRequest") {
        Action(replay, call.text, call.value);
    } else if (name == "RequestShutdown") {
        replay.ExpectRecord("trace", SESSION, "FeaturePrepareForShutdownRequest", "(ShutdownRequest=preparing)");
        Publish(replay, false, PREPARE, "preparing", NOT_PUBLISHED);
    } else if (name == "PanelCommandRequest") {
        replay.ExpectRecord("trace", SESSION, "PanelCommandRequest", "(command=" + call.text + ")");
        Publish(replay, false, call.value >= 1 && call.value <= 7 ? PANEL[call.value] : "", call.text,
                "KelboSessionMqtt::CommandReset(): Failed to publish message to MQTT");
    } else if (name == "SendConnectionStatus") {
        Publish(replay, false, CONNECTION_STATUS, call.text, "Failed to publish message to MQTT for cellular");
    }
    replay.ExpectEnd();
}

} // namespace OrvLab
