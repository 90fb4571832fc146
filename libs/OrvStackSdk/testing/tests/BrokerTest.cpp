// SPDX-License-Identifier: Apache-2.0
#include "KitScene.h"

#include <stdexcept>

namespace OrvStackSdk::Testing {
namespace {

TEST_F(AnApplicationOnTheKit, HearsWhatNeighboursPublish) {
    Begin();
    gateway.broker.Publish("/orv/panel/guid", "4711");
    gateway.broker.Publish("/orv/modem/sim/strength", "-71");
    gateway.broker.Publish(FEATURES + "alarm/init", "reload");
    gateway.broker.Publish(FEATURES + "shutdown_readiness/door", "ready");
    EXPECT_EQ(listener->heard, (Lines{"panel 4711", "STRENGTH -71", "RELOAD", "door ready"}));
}

TEST_F(AnApplicationOnTheKit, IsToldWhatWasRetainedBeforeItCame) {
    gateway.broker.Publish("/orv/panel/guid", "4711", true);
    client = CreateClient();
    client->SetHandler(listener);
    client->Init("alarm");
    gateway.Settle();
    EXPECT_EQ(listener->heard, (Lines{"init ACK", "panel 4711"}));
}

TEST_F(AnApplicationOnTheKit, IsSeenInWhatItPublishes) {
    Begin();
    client->AppStatusRequest(AppStatus::ERROR);
    gateway.After(2s, [&] { client->PanelCommandRequest("now", 2); });
    EXPECT_TRUE(gateway.AdvanceUntil(
        [&] { return gateway.broker.Published("/orv/panel/event/command/DoReset") == Lines{"now"}; }, 10s));
    EXPECT_EQ(gateway.broker.Published(FEATURES + "alarm/init"), (Lines{"error"}));
    ASSERT_EQ(gateway.broker.Published().size(), 2U);
    EXPECT_EQ(gateway.broker.Published()[1].at, gateway.Elapsed());
    EXPECT_FALSE(gateway.broker.Published()[1].retained);
}

TEST_F(AnApplicationOnTheKit, HearsLateOfWhatIsDeliveredSlowly) {
    Begin();
    gateway.broker.SetLatency(300ms);
    gateway.broker.Publish("/orv/panel/guid", "1");
    gateway.Advance(299ms);
    EXPECT_EQ(listener->heard, Lines{});
    gateway.Advance(1ms);
    EXPECT_EQ(listener->heard, (Lines{"panel 1"}));
}

TEST_F(AnApplicationOnTheKit, PublishesInVainWithoutABrokerAndIsAnnouncedAgainAfterIt) {
    BeginWithBothPaths();
    gateway.broker.Lose();
    EXPECT_FALSE(gateway.broker.IsConnected());
    client->AppStatusRequest(AppStatus::BOOTING);
    Report({OrvEvent::CLOUD_DISCONNECTED});
    gateway.broker.Publish("/orv/panel/guid", "unheard");
    EXPECT_EQ(gateway.broker.Published().size(), 0U);
    gateway.broker.Return();
    gateway.Advance(249ms);
    EXPECT_FALSE(gateway.broker.IsConnected());
    gateway.Advance(1ms);
    EXPECT_TRUE(gateway.broker.IsConnected());
    EXPECT_EQ(gateway.broker.Retained("/orv/led/connected_services_green"), "Off");
    EXPECT_EQ(gateway.broker.Published(FEATURES + "alarm/available"), (Lines{"true"}));
    gateway.broker.Publish("/orv/panel/guid", "heard");
    EXPECT_EQ(listener->heard, (Lines{"panel heard"}));
}

TEST_F(AnApplicationOnTheKit, IsSpokenForByItsLastWillWhenItsConnectionBreaks) {
    Begin();
    gateway.broker.SetReconnectDelay(2s);
    gateway.broker.BreakConnections();
    EXPECT_EQ(gateway.broker.Retained(FEATURES + "alarm/available"), "false");
    gateway.Advance(1999ms);
    EXPECT_FALSE(gateway.broker.IsConnected());
    gateway.Advance(1ms);
    EXPECT_TRUE(gateway.broker.IsConnected());
}

TEST_F(AnApplicationOnTheKit, IsRefused) {
    gateway.broker.RefuseConnections(true);
    EXPECT_THROW(CreateClient(), std::runtime_error);
    gateway.broker.RefuseConnections(false);
    client = CreateClient();
    client->SetHandler(listener);
    gateway.broker.RefuseConnections(true);
    client->Init("alarm");
    gateway.broker.RefuseConnections(false);
    client->Init("alarm");
    EXPECT_EQ(listener->heard, (Lines{"init NACK", "init ACK"}));
}

TEST_F(AnApplicationOnTheKit, IsRefusedByInitAlone) {
    gateway.broker.RefuseInit(true);
    client = CreateClient();
    client->SetHandler(listener);
    client->Init("alarm");
    EXPECT_FALSE(gateway.broker.IsConnected());
    gateway.broker.RefuseInit(false);
    gateway.Advance(10s);
    EXPECT_FALSE(gateway.broker.IsConnected()) << "it has not asked again";
    client->Init("alarm");
    EXPECT_EQ(listener->heard, (Lines{"init NACK", "init ACK"}));
}

TEST_F(AnApplicationOnTheKit, HasItsRouteSupervisionBackWhileItsOwnReconnectionIsRefused) {
    Begin();
    gateway.broker.RefuseInit(true);
    EXPECT_TRUE(gateway.broker.IsConnected()) << "what stands stays";
    gateway.broker.BreakConnections();
    gateway.Advance(250ms);
    EXPECT_FALSE(gateway.broker.IsConnected());
    EXPECT_EQ(gateway.journal.Text({"broker connections are back"}), "broker connections are back\n");
    gateway.Advance(10s);
    EXPECT_FALSE(gateway.broker.IsConnected());
    gateway.broker.RefuseInit(false);
    gateway.Advance(250ms);
    EXPECT_TRUE(gateway.broker.IsConnected());
}

TEST_F(AnApplicationOnTheKit, StaysAwayWhileItsReconnectionIsRefused) {
    Begin();
    gateway.broker.RefuseConnections(true);
    gateway.broker.BreakConnections();
    gateway.Advance(10s);
    EXPECT_FALSE(gateway.broker.IsConnected());
    gateway.broker.RefuseConnections(false);
    gateway.Advance(250ms);
    EXPECT_TRUE(gateway.broker.IsConnected());
}

TEST_F(AnApplicationOnTheKit, SendsALedAgainThatWasRefused) {
    Begin();
    gateway.broker.RefusePublications(true);
    client->EventUpdateRequest(OrvEvent::ETHERNET_CONNECTED);
    EXPECT_EQ(gateway.broker.Retained("/orv/led/connected_services_yellow"), "");
    gateway.broker.RefusePublications(false);
    client->EventUpdateRequest(OrvEvent::ETHERNET_CONNECTED);
    EXPECT_EQ(gateway.broker.Retained("/orv/led/connected_services_yellow"), "On");
}

TEST_F(AnApplicationOnTheKit, IsStoppedWhenItAnswersItsOwnMessagesForEver) {
    Begin();
    listener->then = [&] { client->AppActionRequest("alarm", AppAction::RELOAD); };
    EXPECT_THROW(gateway.broker.Publish(FEATURES + "alarm/init", "reload"), std::logic_error);
    listener->then = nullptr;
}

TEST_F(AnApplicationOnTheKit, LetsACheckInACallbackThrowIntoTheTest) {
    Begin();
    listener->then = [] { throw std::runtime_error("a failed check"); };
    EXPECT_THROW(gateway.broker.Publish("/orv/panel/guid", "4711"), std::runtime_error);
    listener->then = nullptr;
    gateway.broker.Publish("/orv/panel/guid", "4712");
    EXPECT_EQ(listener->heard, (Lines{"panel 4711", "panel 4712"}));
}

TEST_F(AnApplicationOnTheKit, MayBeReleasedInACallback) {
    Begin();
    listener->then = [&] { client.reset(); };
    gateway.broker.Publish("/orv/panel/guid", "4711");
    EXPECT_FALSE(gateway.broker.IsConnected());
    EXPECT_EQ(client, nullptr);
    gateway.broker.Publish("/orv/panel/guid", "4712");
    EXPECT_EQ(listener->heard.size(), 1U);
}

} // namespace
} // namespace OrvStackSdk::Testing
