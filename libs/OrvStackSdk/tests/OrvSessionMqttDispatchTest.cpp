// SPDX-License-Identifier: Apache-2.0
#include "SessionScene.h"

using namespace OrvStackSdk;
using namespace OrvStackSdk::Testing;

namespace {

const std::string FEATURES = "/orv/apps_control/features/";

std::string Context(const std::string& topic, const std::string& message) {
    return "(topic=" + topic + ", message=" + message + ")";
}

class AMessage : public SessionScene {
protected:
    AMessage() { Init("alarm"); }

    Entries WrittenFor(const std::string& topic, const std::string& message) {
        return Written([&] { session->OnPublish(topic, message); });
    }

    /// The message is logged with `text` behind the context and becomes `indication`.
    void Expect(const std::string& topic, const std::string& message, const std::string& text,
                const std::string& indication) {
        EXPECT_EQ(WrittenFor(topic, message),
                  (Entries{SessionTrace("OnPublish", Context(topic, message) + text), "indication " + indication}));
    }

    void ExpectNotHandled(const std::string& topic, const std::string& message) {
        EXPECT_EQ(WrittenFor(topic, message),
                  (Entries{SessionTrace("OnPublish", Context(topic, message) + ": Message not handled")}));
    }

    void ExpectInitNotHandled(const std::string& topic, const std::string& message) {
        EXPECT_EQ(WrittenFor(topic, message),
                  (Entries{SessionWarning(Context(topic, message) + ": Message is not handled")}));
    }
};

TEST_F(AMessage, OrdersAnActionInAnyCase) {
    for (const auto& [message, action] :
         {std::pair{"reload", "RELOAD"}, {"RELOAD", "RELOAD"}, {"Enabled", "ENABLED"}, {"dISABLED", "DISABLED"}})
        Expect(FEATURES + "alarm/init", message, std::string(": Calling OnFeatureInitIndication(") + action + ")...",
               std::string("OnFeatureInitIndication(alarm, action ") + action + ")");
}

TEST_F(AMessage, OnTheInitTopicThatIsNoActionIsWarnedAbout) {
    for (const char* message : {"supported", "available", "booting", "BOOTING", "ready", "error", "noerror",
                                "UNSUPPORTED", "unsupported", "reload ", "", "anything"})
        ExpectInitNotHandled(FEATURES + "alarm/init", message);
}

TEST_F(AMessage, TellsTheOwnAvailability) {
    for (const auto& [message, value] :
         {std::pair{"true", "true"}, {"TRUE", "true"}, {"false", "false"}, {"", "false"}, {"nonsense", "false"}})
        Expect(FEATURES + "alarm/available", message,
               std::string(": Calling OnFeatureAvailableIndication(") + message + ") ...",
               std::string("OnFeatureAvailableIndication(alarm, ") + value + ")");
}

TEST_F(AMessage, TellsTheOwnSupport) {
    for (const auto& [message, value] :
         {std::pair{"true", "true"}, {"TRUE", "true"}, {"false", "false"}, {"", "false"}, {"nonsense", "false"}})
        Expect(FEATURES + "alarm/supported", message,
               std::string(": Calling OnFeatureSupportedIndication(") + message + ") ...",
               std::string("OnFeatureSupportedIndication(alarm, ") + value + ")");
}

TEST_F(AMessage, NamesThePanel) {
    Expect("/orv/panel/guid", " {4711} ", ": Calling OnDeviceProbeIndication()...",
           "OnDeviceProbeIndication( {4711} )");
}

TEST_F(AMessage, TellsThePanelsConnection) {
    for (const auto& [message, value] : {std::pair{"UP", "true"},
                                         {"up", "false"},
                                         {"Up", "false"},
                                         {"UP ", "false"},
                                         {"DOWN", "false"},
                                         {"true", "false"},
                                         {"", "false"}})
        Expect("/orv/panel/connection_status", message, ": Calling OnDeviceConnectionStatusIndication()...",
               std::string("OnDeviceConnectionStatusIndication(") + value + ")");
}

TEST_F(AMessage, TellsAnItemOfTheModem) {
    for (const auto& [topic, item] : {std::pair{"/orv/modem/imei", "IMEI"},
                                      {"/orv/modem/sim/iccid", "ICCID"},
                                      {"/orv/modem/sim/technology", "TECHNOLOGY"},
                                      {"/orv/modem/sim/provider", "PROVIDER"},
                                      {"/orv/modem/sim/strength", "STRENGTH"}})
        Expect(topic, " Value ", ": Calling OnDeviceCellularStatusIndication()...",
               std::string("OnDeviceCellularStatusIndication(") + item + ",  Value )");
}

TEST_F(AMessage, TellsAFeaturesReadinessForShutdown) {
    for (const auto& [message, value] : {std::pair{"ready", "true"},
                                         {"READY", "false"},
                                         {"Ready", "false"},
                                         {"ready ", "false"},
                                         {"", "false"},
                                         {"true", "false"}})
        Expect(FEATURES + "shutdown_readiness/door", message, ": Calling OnFeatureShutdownReadinessIndication()...",
               std::string("OnFeatureShutdownReadinessIndication(door, ") + value + ")");
}

TEST_F(AMessage, TellsTheReadinessOfTheTopicsLastPiece) {
    for (const auto& [topic, name] : {std::pair{FEATURES + "shutdown_readiness/alarm", "alarm"},
                                      {"/site" + FEATURES + "shutdown_readiness/door", "door"},
                                      {"x" + FEATURES + "shutdown_readiness/a/b", "b"},
                                      {FEATURES + "shutdown_readiness/door/", "door"},
                                      {FEATURES + "shutdown_readiness/", "shutdown_readiness"},
                                      {FEATURES + "shutdown_readiness/alarm/init", "init"}})
        Expect(topic, "ready", ": Calling OnFeatureShutdownReadinessIndication()...",
               std::string("OnFeatureShutdownReadinessIndication(") + name + ", true)");
}

TEST_F(AMessage, OnAnyOtherTopicIsNotHandled) {
    for (const auto& topic : {FEATURES + "door/init",
                              FEATURES + "door/available",
                              FEATURES + "door/supported",
                              FEATURES + "Alarm/init",
                              FEATURES + "alarm/init/",
                              FEATURES + "alarm/Init",
                              FEATURES + "alarm",
                              "x" + FEATURES + "alarm/init",
                              FEATURES + "prepare_for_shutdown",
                              FEATURES + "Ent/status/EntCon",
                              FEATURES + "Ent/status/NoExtNet",
                              FEATURES + "shutdown_readiness",
                              std::string("/orv/panel/guid/"),
                              std::string("/orv/panel/GUID"),
                              std::string("/orv/panel/guid\0", 16),
                              std::string("/orv/modem/sim/imei"),
                              std::string("/orv/modem/iccid"),
                              std::string("/orv/modem/sim/conn_status"),
                              std::string("/"),
                              std::string()})
        ExpectNotHandled(topic, "ready");
}

TEST_F(AMessage, IsShownWholeUpTo128Characters) {
    const std::string topic = "/orv/panel/guid";
    for (const std::size_t length : {127U, 128U})
        Expect(topic, std::string(length, 'x'), ": Calling OnDeviceProbeIndication()...",
               "OnDeviceProbeIndication(" + std::string(length, 'x') + ")");
}

TEST_F(AMessage, IsShownCutBeyond128CharactersAndPassedOnWhole) {
    const std::string shown = std::string(127, 'x') + "y...";
    for (const auto& rest : {std::string("z"), std::string(1U << 20U, 'z')}) {
        const std::string message = std::string(127, 'x') + "y" + rest;
        EXPECT_EQ(WrittenFor("/orv/modem/imei", message),
                  (Entries{SessionTrace("OnPublish", Context("/orv/modem/imei", shown) +
                                                         ": Calling OnDeviceCellularStatusIndication()..."),
                           "indication OnDeviceCellularStatusIndication(IMEI, " + message + ")"}));
        EXPECT_EQ(WrittenFor("/orv/panel/guid", message),
                  (Entries{SessionTrace("OnPublish",
                                        Context("/orv/panel/guid", shown) + ": Calling OnDeviceProbeIndication()..."),
                           "indication OnDeviceProbeIndication(" + message + ")"}));
        EXPECT_EQ(WrittenFor(FEATURES + "alarm/available", message),
                  (Entries{SessionTrace("OnPublish", Context(FEATURES + "alarm/available", shown) +
                                                         ": Calling OnFeatureAvailableIndication(" + shown + ") ..."),
                           "indication OnFeatureAvailableIndication(alarm, false)"}));
        EXPECT_EQ(WrittenFor(FEATURES + "alarm/init", message),
                  (Entries{SessionWarning(Context(FEATURES + "alarm/init", shown) + ": Message is not handled")}));
        EXPECT_EQ(WrittenFor("/x", message),
                  (Entries{SessionTrace("OnPublish", Context("/x", shown) + ": Message not handled")}));
    }
}

TEST_F(AMessage, IsReadWholeThoughShownCut) {
    // Blanks round a truth value do not count, so that the end of the message decides.
    const std::string message = std::string(128, ' ') + "true";
    const std::string shown = std::string(128, ' ') + "...";
    EXPECT_EQ(WrittenFor(FEATURES + "alarm/available", message),
              (Entries{SessionTrace("OnPublish", Context(FEATURES + "alarm/available", shown) +
                                                     ": Calling OnFeatureAvailableIndication(" + shown + ") ..."),
                       "indication OnFeatureAvailableIndication(alarm, true)"}));
    EXPECT_EQ(WrittenFor(FEATURES + "alarm/supported", message),
              (Entries{SessionTrace("OnPublish", Context(FEATURES + "alarm/supported", shown) +
                                                     ": Calling OnFeatureSupportedIndication(" + shown + ") ..."),
                       "indication OnFeatureSupportedIndication(alarm, true)"}));
}

TEST_F(AMessage, MayHoldAnyBytes) {
    const std::string bytes("a\0b\xff\n", 5);
    Expect("/orv/panel/guid", bytes, ": Calling OnDeviceProbeIndication()...",
           "OnDeviceProbeIndication(" + bytes + ")");
    Expect("/orv/panel/connection_status", std::string("UP\0", 3), ": Calling OnDeviceConnectionStatusIndication()...",
           "OnDeviceConnectionStatusIndication(false)");
    ExpectInitNotHandled(FEATURES + "alarm/init", std::string("reload\0", 7));
}

TEST_F(AMessage, IsDroppedSilentlyWhenTheHandlerIsGone) {
    handler.reset();
    for (const auto& topic : {FEATURES + "alarm/init", FEATURES + "alarm/available", std::string("/orv/panel/guid"),
                              FEATURES + "shutdown_readiness/door", std::string("/x")})
        EXPECT_EQ(WrittenFor(topic, "reload"), Entries{});
}

TEST_F(AMessage, IsDroppedSilentlyWithoutAHandler) {
    session->SetHandler({});
    EXPECT_EQ(WrittenFor("/orv/panel/guid", "1"), Entries{});
}

TEST_F(AMessage, GoesToTheHandlerThatWasSetLast) {
    const auto second = std::make_shared<RecordingSessionHandler>();
    int calls = 0;
    second->then = [&] { ++calls; };
    session->SetHandler(second);
    session->OnPublish("/orv/panel/guid", "1");
    EXPECT_EQ(calls, 1);
}

TEST_F(AMessage, KeepsTheHandlerWhileItIsHandled) {
    bool aliveInside = false;
    handler->then = [&, weak = std::weak_ptr<RecordingSessionHandler>(handler)] {
        handler.reset();
        aliveInside = !weak.expired();
    };
    session->OnPublish("/orv/panel/guid", "1");
    EXPECT_TRUE(aliveInside);
    EXPECT_EQ(WrittenFor("/orv/panel/guid", "2"), Entries{});
}

TEST_F(AMessage, MayEndTheSession) {
    // The handler owns the session, as the client does.
    handler->then = [&, owned = std::exchange(session, nullptr)] { handler.reset(); };
    session.reset();
    FakeBroker::Get().Inject("/orv/panel/guid", "1");
    FakeBroker::Get().Inject("/orv/panel/guid", "2");
    FakeBroker::Get().Deliver();
    const auto calls = Only(Journal::Take(), {"indication", "stop-delivery"});
    EXPECT_EQ(calls, (Entries{"indication OnDeviceProbeIndication(1)", Entry::StopDelivery("ORV_Stack")}));
}

class AMessageBeforeAnyInit : public AMessage {
protected:
    AMessageBeforeAnyInit() { Init(""); }
};

TEST_F(AMessageBeforeAnyInit, IsForANamelessFeature) {
    Expect("/orv/apps_control/features//init", "reload", ": Calling OnFeatureInitIndication(RELOAD)...",
           "OnFeatureInitIndication(, action RELOAD)");
    Expect("/orv/apps_control/features//available", "true", ": Calling OnFeatureAvailableIndication(true) ...",
           "OnFeatureAvailableIndication(, true)");
    Expect("/orv/apps_control/features//supported", "true", ": Calling OnFeatureSupportedIndication(true) ...",
           "OnFeatureSupportedIndication(, true)");
    ExpectNotHandled("/orv/apps_control/features/init", "reload");
}

/// A feature of this name has own topics that look like readiness topics.
class AMessageForAFeatureNamedShutdownReadiness : public AMessage {
protected:
    AMessageForAFeatureNamedShutdownReadiness() { Init("shutdown_readiness"); }
};

TEST_F(AMessageForAFeatureNamedShutdownReadiness, IsRecognisedAsItsOwnFirst) {
    Expect(FEATURES + "shutdown_readiness/init", "enabled", ": Calling OnFeatureInitIndication(ENABLED)...",
           "OnFeatureInitIndication(shutdown_readiness, action ENABLED)");
    ExpectInitNotHandled(FEATURES + "shutdown_readiness/init", "ready");
    Expect(FEATURES + "shutdown_readiness/available", "true", ": Calling OnFeatureAvailableIndication(true) ...",
           "OnFeatureAvailableIndication(shutdown_readiness, true)");
    Expect(FEATURES + "shutdown_readiness/supported", "true", ": Calling OnFeatureSupportedIndication(true) ...",
           "OnFeatureSupportedIndication(shutdown_readiness, true)");
    Expect(FEATURES + "shutdown_readiness/door", "ready", ": Calling OnFeatureShutdownReadinessIndication()...",
           "OnFeatureShutdownReadinessIndication(door, true)");
}

/// Whatever a platform's ToUpper makes of a text: the status is looked up first.
class AMessageOnAPlatformThatDoesNotUpperCase : public AMessage {
protected:
    AMessageOnAPlatformThatDoesNotUpperCase() { OrvPlatformFake::FakeGateway::SetToUpperIdle(true); }
};

TEST_F(AMessageOnAPlatformThatDoesNotUpperCase, IsReadAsAStatusFirst) {
    for (const char* word : {"supported", "available", "booting", "ready", "error", "noerror"})
        Expect(FEATURES + "alarm/init", word, std::string(": Calling OnFeatureInitIndication(") + word + ")...",
               std::string("OnFeatureInitIndication(alarm, status ") + word + ")");
    Expect(FEATURES + "alarm/init", "RELOAD", ": Calling OnFeatureInitIndication(RELOAD)...",
           "OnFeatureInitIndication(alarm, action RELOAD)");
    ExpectInitNotHandled(FEATURES + "alarm/init", "UNSUPPORTED");
}

/// The session hears what it says itself.
class AnEcho : public AMessage {
protected:
    /// What comes back from `request`.
    template <typename Request>
    Entries Echoed(Request request) {
        FakeBroker::Get().Deliver();
        request();
        Journal::Clear();
        FakeBroker::Get().Deliver();
        return Journal::Take();
    }
};

TEST_F(AnEcho, OfAvailabilityAndSupportIsIndicated) {
    EXPECT_EQ(Only(Echoed([&] { session->FeatureAvailableRequest("alarm", true); }), {"indication"}),
              (Entries{"indication OnFeatureAvailableIndication(alarm, true)"}));
    EXPECT_EQ(Only(Echoed([&] { session->FeatureSupportedRequest("alarm", true); }), {"indication"}),
              (Entries{"indication OnFeatureSupportedIndication(alarm, true)"}));
}

TEST_F(AnEcho, OfAStatusIsWarnedAbout) {
    EXPECT_EQ(Echoed([&] { session->FeatureInitRequest("alarm", AppStatus::BOOTING); }),
              (Entries{SessionWarning(Context(FEATURES + "alarm/init", "booting") + ": Message is not handled")}));
}

TEST_F(AnEcho, OfAnActionIsIndicated) {
    EXPECT_EQ(Only(Echoed([&] { session->FeatureInitRequest("alarm", AppAction::RELOAD); }), {"indication"}),
              (Entries{"indication OnFeatureInitIndication(alarm, action RELOAD)"}));
}

TEST_F(AnEcho, OfEverythingElseIsNotHandled) {
    EXPECT_EQ(Echoed([&] { session->FeaturePrepareForShutdownRequest(); }),
              (Entries{SessionTrace("OnPublish", Context(FEATURES + "prepare_for_shutdown", "preparing") +
                                                     ": Message not handled")}));
    EXPECT_EQ(
        Echoed([&] { session->FeatureInitRequest("door", AppAction::RELOAD); }),
        (Entries{SessionTrace("OnPublish", Context(FEATURES + "door/init", "reload") + ": Message not handled")}));
    EXPECT_EQ(
        Echoed([&] { session->LedUpdateRequest(ConnectedServicesLedType::GREEN, ConnectedServicesLedState::ON); }),
        Entries{});
}

TEST_F(AnEcho, ThatComesTwiceIsHandledTwice) {
    session->DeInitRequest();
    FakeBroker::Get().Inject(FEATURES + "shutdown_readiness/door", "ready", true);
    FakeBroker::Get().Deliver();
    Init("alarm");
    FakeBroker::Get().Deliver();
    // A retained message comes once for each of the two filters that match it.
    EXPECT_EQ(Only(Journal::Take(), {"indication OnFeatureShutdown"}),
              (Entries{"indication OnFeatureShutdownReadinessIndication(door, true)",
                       "indication OnFeatureShutdownReadinessIndication(door, true)"}));
}

} // namespace
