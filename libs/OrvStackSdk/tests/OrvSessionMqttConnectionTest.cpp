// SPDX-License-Identifier: Apache-2.0
#include "SessionScene.h"

using namespace OrvStackSdk;
using namespace OrvStackSdk::Testing;

namespace {

Entries Connected(const std::string& feature) {
    return {
        Entry::ConnectWithWill("ORV_Stack", "/orv/apps_control/features/" + feature + "/available", "false", true),
        Entry::Info("OrvSessionMqtt", "Connected to the MQTT Broker"),
    };
}

Entries Confirmed(const std::string& feature, const std::string& word) {
    return {
        SessionTrace("InitRequest", "(featureName=" + feature + "): Calling OnInitConfirmation(" + word + ") ..."),
        "indication OnInitConfirmation(" + word + ")",
    };
}

Entries Refused(const std::string& feature) {
    return {
        Entry::ConnectWithWill("ORV_Stack", "/orv/apps_control/features/" + feature + "/available", "false", true,
                               false),
        SessionWarning("Could not connect to the MQTT Broker"),
    };
}

Entries Failed(const std::string& feature) {
    return {Entry::Error("OrvSessionMqtt", "(featureName=" + feature + "): Connection to MQTT broker failed.")};
}

class ASession : public SessionScene {};

TEST_F(ASession, ConnectsNothingWhenItIsMade) {
    EXPECT_EQ(
        Written([] { OrvSessionMqtt{}; }),
        (Entries{SessionTrace("OrvSessionMqtt"), Entry::StopDelivery("ORV_Stack"), SessionTrace("~OrvSessionMqtt")}));
}

TEST_F(ASession, TracesItsHandler) {
    EXPECT_EQ(Written([&] { session->SetHandler({}); }), (Entries{SessionTrace("SetHandler")}));
}

TEST_F(ASession, ConfirmsBeforeItSubscribes) {
    EXPECT_EQ(Written([&] { session->InitRequest("alarm"); }),
              Connected("alarm") + Confirmed("alarm", "ACK") + SubscriptionsAndReset());
    EXPECT_TRUE(FakeBroker::Get().IsConnected("ORV_Stack"));
    EXPECT_EQ(FakeBroker::Get().Retained("/orv/apps_control/features/Ent/status/EntCon"), "false");
}

TEST_F(ASession, ConfirmsAFailureBeforeItLogsIt) {
    FakeBroker::Get().SetReachable(false);
    EXPECT_EQ(Written([&] { session->InitRequest("alarm"); }),
              Refused("alarm") + Confirmed("alarm", "NACK") + Failed("alarm"));
}

TEST_F(ASession, CanBeInitialisedAfterAFailure) {
    FakeBroker::Get().SetReachable(false);
    Init("alarm");
    FakeBroker::Get().SetReachable(true);
    EXPECT_EQ(Written([&] { session->InitRequest("alarm"); }),
              Connected("alarm") + Confirmed("alarm", "ACK") + SubscriptionsAndReset());
}

TEST_F(ASession, KeepsTheNameOfAFailedInit) {
    FakeBroker::Get().SetReachable(false);
    Init("alarm");
    session->OnPublish("/orv/apps_control/features/alarm/init", "reload");
    EXPECT_EQ(Only(Journal::Take(), {"indication"}),
              (Entries{"indication OnFeatureInitIndication(alarm, action RELOAD)"}));
}

TEST_F(ASession, SubscribesWithoutAHandlerToo) {
    session->SetHandler({});
    EXPECT_EQ(Written([&] { session->InitRequest("alarm"); }), Connected("alarm") + SubscriptionsAndReset());
}

TEST_F(ASession, SubscribesWhenTheHandlerIsGone) {
    handler.reset();
    EXPECT_EQ(Written([&] { session->InitRequest("alarm"); }), Connected("alarm") + SubscriptionsAndReset());
}

TEST_F(ASession, LogsAFailureWithoutAHandlerToo) {
    handler.reset();
    FakeBroker::Get().SetReachable(false);
    EXPECT_EQ(Written([&] { session->InitRequest("alarm"); }), Refused("alarm") + Failed("alarm"));
}

TEST_F(ASession, LetsGoOfTheHandlerBeforeItSubscribes) {
    bool goneWhenPublishing = false;
    handler->then = [&, weak = std::weak_ptr<RecordingSessionHandler>(handler)] {
        FakeBroker::Get().SetPublishHook(
            [&goneWhenPublishing, weak](const std::string&) { goneWhenPublishing = weak.expired(); });
        handler.reset();
    };
    session->InitRequest("alarm");
    EXPECT_TRUE(goneWhenPublishing);
}

TEST_F(ASession, RepeatsEverythingForASecondInit) {
    Init("alarm");
    EXPECT_EQ(Written([&] { session->InitRequest("door"); }),
              Connected("door") + Confirmed("door", "ACK") + SubscriptionsAndReset());
}

TEST_F(ASession, TakesAnyFeatureName) {
    const std::string name("a/+#\0b ", 7);
    EXPECT_EQ(Written([&] { session->InitRequest(name); }),
              Connected(name) + Confirmed(name, "ACK") + SubscriptionsAndReset());
    EXPECT_EQ(Written([&] { session->InitRequest(""); }),
              Connected("") + Confirmed("", "ACK") + SubscriptionsAndReset());
}

TEST_F(ASession, IgnoresWhatBecomesOfTheReset) {
    FakeBroker::Get().SetPublishStatus(1);
    EXPECT_EQ(Written([&] { session->InitRequest("alarm"); }),
              Connected("alarm") + Confirmed("alarm", "ACK") + SubscriptionsAndReset());
}

TEST_F(ASession, IgnoresWhatBecomesOfTheSubscriptions) {
    handler->then = [] { FakeBroker::Get().DropConnection("ORV_Stack"); };
    EXPECT_EQ(Written([&] { session->InitRequest("alarm"); }),
              Connected("alarm") + Confirmed("alarm", "ACK") +
                  Entries{Entry::Will("ORV_Stack", "/orv/apps_control/features/alarm/available", "false")} +
                  SubscriptionsAndReset());
}

TEST_F(ASession, TellsWhetherItConnected) {
    EXPECT_TRUE(session->Connect());
    EXPECT_EQ(Journal::Take(), Connected(""));
    FakeBroker::Get().SetReachable(false);
    EXPECT_FALSE(session->Connect());
    EXPECT_EQ(Journal::Take(), Refused(""));
}

TEST_F(ASession, SaysGoodByeEvenBeforeItWasConnected) {
    EXPECT_EQ(Written([&] { session->DeInitRequest(); }),
              (Entries{SessionTrace("DeInitRequest"), Entry::Disconnect("ORV_Stack")}));
}

TEST_F(ASession, LeavesTheBrokerWithoutItsWill) {
    Init("alarm");
    EXPECT_EQ(Written([&] { session->DeInitRequest(); }),
              (Entries{SessionTrace("DeInitRequest"), Entry::Disconnect("ORV_Stack")}));
    EXPECT_FALSE(FakeBroker::Get().IsConnected("ORV_Stack"));
    EXPECT_FALSE(FakeBroker::Get().HasRetained("/orv/apps_control/features/alarm/available"));
}

TEST_F(ASession, KeepsNameAndHandlerAfterDeInit) {
    Init("alarm");
    session->DeInitRequest();
    session->OnPublish("/orv/apps_control/features/alarm/supported", "true");
    EXPECT_EQ(Only(Journal::Take(), {"indication"}), (Entries{"indication OnFeatureSupportedIndication(alarm, true)"}));
}

TEST_F(ASession, ConnectsAgainAfterDeInit) {
    Init("alarm");
    session->DeInitRequest();
    EXPECT_EQ(Written([&] { session->InitRequest("alarm"); }),
              Connected("alarm") + Confirmed("alarm", "ACK") + SubscriptionsAndReset());
}

TEST_F(ASession, LeavesItsWillWhenTheConnectionDrops) {
    Init("alarm");
    FakeBroker::Get().DropConnection("ORV_Stack");
    EXPECT_EQ(FakeBroker::Get().Retained("/orv/apps_control/features/alarm/available"), "false");
}

TEST_F(ASession, StopsDeliveryFirstAndDoesNotSayGoodByeWhenItGoes) {
    Init("alarm");
    EXPECT_EQ(Written([&] { session.reset(); }),
              (Entries{Entry::StopDelivery("ORV_Stack"), SessionTrace("~OrvSessionMqtt"),
                       Entry::Will("ORV_Stack", "/orv/apps_control/features/alarm/available", "false")}));
}

TEST_F(ASession, DoesNotKeepItsHandlerAlive) {
    Init("alarm");
    EXPECT_EQ(handler.use_count(), 1);
}

} // namespace
