// SPDX-License-Identifier: Apache-2.0
#include "FakeLogger.h"
#include "SessionScene.h"

#include <stdexcept>

using namespace OrvStackSdk;
using namespace OrvStackSdk::Testing;

namespace {

constexpr const char* FAILED = "Failed to publish message to MQTT";

class ARequest : public SessionScene {
protected:
    ARequest() { Init("own"); }

    /// `request` writes `expected`, and `failure` too when the publication fails.
    template <typename Request>
    void ExpectWritten(Request request, const Entries& expected, const Entries& failure = {}) {
        EXPECT_EQ(Written(request), expected);
        for (const int status : {1, 4, -1}) {
            FakeBroker::Get().SetPublishStatus(status);
            EXPECT_EQ(Written(request), expected + failure) << "publish status " << status;
        }
        FakeBroker::Get().SetPublishStatus(0);
    }
};

TEST_F(ARequest, AnnouncesAvailability) {
    for (const bool available : {true, false}) {
        const std::string word = available ? "true" : "false";
        ExpectWritten([&] { session->FeatureAvailableRequest("alarm", available); },
                      {SessionTrace("FeatureAvailableRequest", "(App=alarm, available=" + word + ")"),
                       SessionPublish("/orv/apps_control/features/alarm/available", word)},
                      {SessionWarning(FAILED)});
    }
}

TEST_F(ARequest, AnnouncesSupport) {
    for (const bool supported : {true, false}) {
        const std::string word = supported ? "true" : "false";
        ExpectWritten([&] { session->FeatureSupportedRequest("alarm", supported); },
                      {SessionTrace("FeatureSupportedRequest", "(App=alarm, supported=" + word + ")"),
                       SessionPublish("/orv/apps_control/features/alarm/supported", word)},
                      {SessionWarning(FAILED)});
    }
}

TEST_F(ARequest, AnnouncesFourStates) {
    for (const auto& [status, word] : {std::pair{AppStatus::BOOTING, "booting"},
                                       {AppStatus::READY, "ready"},
                                       {AppStatus::ERROR, "error"},
                                       {AppStatus::NOERROR, "noerror"}})
        ExpectWritten([&, s = status] { session->FeatureInitRequest("alarm", s); },
                      {SessionTrace("FeatureInitRequest", std::string("(App=alarm, initState=") + word + ")"),
                       SessionPublish("/orv/apps_control/features/alarm/init", word)});
}

TEST_F(ARequest, RefusesStatesThatAreNone) {
    for (const auto& [status, word] : {std::pair{AppStatus::SUPPORTED, "supported"},
                                       {AppStatus::AVAILABLE, "available"},
                                       {AppStatus::UNSUPPORTED, "UNSUPPORTED"}})
        ExpectWritten([&, s = status] { session->FeatureInitRequest("alarm", s); },
                      {SessionWarning(std::string("(App=alarm, initState=") + word + "): initState not handled")});
}

TEST_F(ARequest, OrdersThreeActions) {
    for (const auto& [action, text, word] : {std::tuple{AppAction::ENABLED, "ENABLED", "enabled"},
                                             {AppAction::DISABLED, "DISABLED", "disabled"},
                                             {AppAction::RELOAD, "RELOAD", "reload"}})
        ExpectWritten([&, a = action] { session->FeatureInitRequest("alarm", a); },
                      {SessionTrace("FeatureInitRequest", std::string("(App=alarm, action=") + text + ")"),
                       SessionPublish("/orv/apps_control/features/alarm/init", word)});
}

TEST_F(ARequest, RefusesTheUnsupportedAction) {
    ExpectWritten([&] { session->FeatureInitRequest("alarm", AppAction::UNSUPPORTED); },
                  {SessionWarning("(App=alarm, action=UNSUPPORTED): action not handled")});
}

TEST_F(ARequest, EndsWithAValueWithoutATextWhateverIsLogged) {
    for (const int lowestLevel : {0, 2, 5}) {
        OrvPlatformFake::FakeLogger::SetLowestLevel(lowestLevel);
        EXPECT_THROW(session->FeatureInitRequest("alarm", AppStatus{7}), std::out_of_range);
        EXPECT_THROW(session->FeatureInitRequest("alarm", AppStatus{-1}), std::out_of_range);
        EXPECT_THROW(session->FeatureInitRequest("alarm", AppAction{4}), std::out_of_range);
        EXPECT_THROW(session->FeatureInitRequest("alarm", AppAction{-1}), std::out_of_range);
        EXPECT_THROW(session->LedUpdateRequest(ConnectedServicesLedType{2}, ConnectedServicesLedState::ON),
                     std::out_of_range);
        EXPECT_THROW(session->LedUpdateRequest(ConnectedServicesLedType::GREEN, ConnectedServicesLedState{3}),
                     std::out_of_range);
    }
    // Neither a publication nor the beginning of a record.
    EXPECT_EQ(Journal::Take(), Entries{});
}

TEST_F(ARequest, AsksEveryoneToPrepareForShutdown) {
    ExpectWritten([&] { session->FeaturePrepareForShutdownRequest(); },
                  {SessionTrace("FeaturePrepareForShutdownRequest", "(ShutdownRequest=preparing)"),
                   SessionPublish("/orv/apps_control/features/prepare_for_shutdown", "preparing")},
                  {SessionWarning(FAILED)});
}

TEST_F(ARequest, TellsTheEnterpriseConnection) {
    for (const bool connected : {true, false})
        ExpectWritten(
            [&] { session->StatusEntConRequest(connected); },
            {SessionTrace("StatusEntConRequest", connected ? "(EntCon=1)" : "(EntCon=0)"),
             SessionPublishRetained("/orv/apps_control/features/Ent/status/EntCon", connected ? "true" : "false")},
            {SessionWarning(FAILED)});
}

TEST_F(ARequest, TellsTheAbsenceOfTheExternalNetwork) {
    for (const bool reachable : {true, false})
        ExpectWritten(
            [&] { session->StatusExtNetRequest(reachable); },
            {SessionTrace("StatusExtNetRequest", reachable ? "(NoExtNet=0)" : "(NoExtNet=1)"),
             SessionPublishRetained("/orv/apps_control/features/Ent/status/NoExtNet", reachable ? "false" : "true")},
            {SessionWarning(FAILED)});
}

TEST_F(ARequest, SetsAnLed) {
    using Led = ConnectedServicesLedType;
    using State = ConnectedServicesLedState;
    for (const auto& [led, color, topic] : {std::tuple{Led::GREEN, "GREEN", "/orv/led/connected_services_green"},
                                            {Led::YELLOW, "YELLOW", "/orv/led/connected_services_yellow"}})
        for (const auto& [state, text, word] :
             {std::tuple{State::ON, "ON", "On"}, {State::OFF, "OFF", "Off"}, {State::BLINK, "BLINK", "Blink"}})
            ExpectWritten([&, l = led, s = state] { session->LedUpdateRequest(l, s); },
                          {SessionTrace("LedUpdateRequest", std::string("(Led=") + color + ", State=" + text + ")"),
                           SessionTrace("LedUpdateRequest", std::string("(Led=") + topic + ", State=" + word + ")"),
                           SessionPublishRetained(topic, word)});
}

TEST_F(ARequest, TellsWhenAnLedWasNotSet) {
    const auto update = [&] {
        return session->LedUpdateRequest(ConnectedServicesLedType::YELLOW, ConnectedServicesLedState::BLINK);
    };
    EXPECT_FALSE(update());
    FakeBroker::Get().SetPublishStatus(-1);
    EXPECT_TRUE(update());
    FakeBroker::Get().SetPublishStatus(2);
    EXPECT_TRUE(update());
}

TEST_F(ARequest, SendsAPanelCommandOnTheTopicOfItsNumber) {
    const std::string root = "/orv/panel/event/command/";
    for (const auto& [value, topic] : {std::pair{1, root + "DoAlarmAck"},
                                       {2, root + "DoReset"},
                                       {3, root + "DoAck"},
                                       {4, root + "DoAckIndividual"},
                                       {5, root + "DoDateTime"},
                                       {6, root + "GetRCStatus"},
                                       {7, root + "GetRSStatus"}})
        ExpectWritten([&, v = value] { session->PanelCommandRequest(" Text/42 ", v); },
                      {SessionTrace("PanelCommandRequest", "(command= Text/42 )"), SessionPublish(topic, " Text/42 ")},
                      {SessionWarning("KelboSessionMqtt::CommandReset(): Failed to publish message to MQTT")});
}

TEST_F(ARequest, SendsAPanelCommandOfAnyOtherNumberOnNoTopic) {
    for (const int value : {0, 8, -1, 1000000})
        EXPECT_EQ(Written([&] { session->PanelCommandRequest("text", value); }),
                  (Entries{SessionTrace("PanelCommandRequest", "(command=text)"), SessionPublish("", "text"),
                           SessionWarning("KelboSessionMqtt::CommandReset(): Failed to publish message to MQTT")}));
}

TEST_F(ARequest, SendsTheConnectionStatusWithoutATrace) {
    ExpectWritten([&] { session->SendConnectionStatus(" Up "); },
                  {SessionPublish("/orv/modem/sim/conn_status", " Up ")},
                  {SessionWarning("Failed to publish message to MQTT for cellular")});
}

TEST_F(ARequest, OfTheTwoThatDoNothingLeavesNoTrace) {
    EXPECT_EQ(Written([&] {
                  session->AppsControlEventRequest("alarm", "event");
                  session->FeatureShutdownReadinessRequest("alarm", "ready");
              }),
              Entries{});
}

TEST_F(ARequest, TakesNamesAndTextsAsTheyAre) {
    const std::string bytes("\0\xff/+#", 5);
    const std::string large(1U << 20U, 'x');
    EXPECT_EQ(Written([&] { session->FeatureAvailableRequest(bytes, true); }),
              (Entries{SessionTrace("FeatureAvailableRequest", "(App=" + bytes + ", available=true)"),
                       SessionPublish("/orv/apps_control/features/" + bytes + "/available", "true"),
                       SessionWarning(FAILED)})); // no broker takes a topic with a wildcard
    EXPECT_EQ(Written([&] { session->SendConnectionStatus(bytes + large); }),
              (Entries{SessionPublish("/orv/modem/sim/conn_status", bytes + large)}));
    EXPECT_EQ(Written([&] { session->PanelCommandRequest(large, 3); }),
              (Entries{SessionTrace("PanelCommandRequest", "(command=" + large + ")"),
                       SessionPublish("/orv/panel/event/command/DoAck", large)}));
}

TEST_F(ARequest, GoesOutUnderItsOwnNameNotTheSessions) {
    session->FeatureInitRequest("other", AppStatus::READY);
    session->FeatureSupportedRequest("", true);
    EXPECT_EQ(Only(Journal::Take(), {"publish"}),
              (Entries{SessionPublish("/orv/apps_control/features/other/init", "ready"),
                       SessionPublish("/orv/apps_control/features//supported", "true")}));
}

/// The configuration of the gateway may switch traces off.
class ARequestWithTracesOff : public ARequest {
protected:
    ARequestWithTracesOff() { OrvPlatformFake::FakeLogger::SetLowestLevel(2); }
};

TEST_F(ARequestWithTracesOff, IsPublishedAllTheSame) {
    EXPECT_EQ(Written([&] {
                  session->FeatureInitRequest("alarm", AppStatus::READY);
                  session->FeatureInitRequest("alarm", AppAction::RELOAD);
                  session->LedUpdateRequest(ConnectedServicesLedType::YELLOW, ConnectedServicesLedState::BLINK);
              }),
              (Entries{SessionPublish("/orv/apps_control/features/alarm/init", "ready"),
                       SessionPublish("/orv/apps_control/features/alarm/init", "reload"),
                       SessionPublishRetained("/orv/led/connected_services_yellow", "Blink")}));
}

/// Nothing checks for a connection; the broker client's answer decides.
class ARequestWithoutAConnection : public SessionScene {};

TEST_F(ARequestWithoutAConnection, IsTriedAllTheSame) {
    session->FeatureAvailableRequest("alarm", true);
    EXPECT_TRUE(session->LedUpdateRequest(ConnectedServicesLedType::GREEN, ConnectedServicesLedState::ON));
    session->FeatureInitRequest("alarm", AppStatus::READY);
    EXPECT_EQ(Only(Journal::Take(), {"publish", "log warning"}),
              (Entries{SessionPublish("/orv/apps_control/features/alarm/available", "true"), SessionWarning(FAILED),
                       SessionPublishRetained("/orv/led/connected_services_green", "On"),
                       SessionPublish("/orv/apps_control/features/alarm/init", "ready")}));
}

} // namespace
