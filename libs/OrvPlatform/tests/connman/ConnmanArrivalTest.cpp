// SPDX-License-Identifier: Apache-2.0
// What arrives is handled in the order in which it arrives, however it is cut into reads.
#include "connman/ConnmanClient.h"

#include "LogWatch.h"
#include "ScriptedBus.h"

#include <gtest/gtest.h>

namespace OrvTest {
namespace {

using namespace std::chrono_literals;
using OrvPlatform::ConnmanClient;

class AGatewayOnAScriptedBus : public testing::Test, protected LogWatch {
protected:
    AGatewayOnAScriptedBus() { link.TopPriorityInterface(); }

    bool BecomesTop(const std::string& interfaceName) {
        return WaitUntil([&] { return link.TopPriorityInterface() == interfaceName; });
    }

    ScriptedBus bus;
    ConnmanClient link{bus.Address(), {300ms, 300ms, 20ms, 200ms, 2000ms}};
};

TEST_F(AGatewayOnAScriptedBus, FindsAConnectionManagerThatComesRightBehindTheAnswerThatThereIsNone) {
    const auto question = bus.SetUpMatches();
    bus.Send(bus.Error(question, bus.DRIVER, DBUS_ERROR_NAME_HAS_NO_OWNER),
             bus.OwnerChanged(bus.DRIVER, "", bus.MANAGER));
    bus.Send(bus.Services(bus.Expect("GetServices"), {{"eth0", "ready"}}));
    EXPECT_TRUE(BecomesTop("eth0"));
}

TEST_F(AGatewayOnAScriptedBus, KnowsThatAConnectionManagerHasGoneRightBehindTheAnswerWhoItIs) {
    const auto question = bus.SetUpMatches();
    bus.Send(bus.Return(question, bus.DRIVER, bus.MANAGER), bus.OwnerChanged(bus.DRIVER, bus.MANAGER, ""));
    EXPECT_TRUE(IsLogged("net.connman is not on the message bus"));
}

TEST_F(AGatewayOnAScriptedBus, HearsOfAStateRightBehindTheListOfServices) {
    bus.Send(bus.Return(bus.SetUpMatches(), bus.DRIVER, bus.MANAGER));
    const auto question = bus.Expect("GetServices");
    link.SetTopPriorityInterface("wwan0");
    bus.Send(bus.Services(question, {{"eth0", "ready"}, {"wwan0", "idle"}}),
             bus.StateChanged(bus.MANAGER, {"wwan0", "ready"}));
    bus.Expect("MoveBefore");
}

TEST_F(AGatewayOnAScriptedBus, HearsOfAnOrderRightBehindTheListOfServices) {
    bus.Send(bus.Return(bus.SetUpMatches(), bus.DRIVER, bus.MANAGER));
    bus.Send(bus.Services(bus.Expect("GetServices"), {{"eth0", "ready"}, {"wwan0", "ready"}}),
             bus.Reordered(bus.MANAGER, {{"wwan0", ""}, {"eth0", ""}}));
    EXPECT_TRUE(BecomesTop("wwan0"));
}

TEST_F(AGatewayOnAScriptedBus, TakesTheListForNewerThanTheSignalsBeforeIt) {
    bus.Send(bus.Return(bus.SetUpMatches(), bus.DRIVER, bus.MANAGER));
    bus.Send(bus.StateChanged(bus.MANAGER, {"eth0", "idle"}),
             bus.Services(bus.Expect("GetServices"), {{"eth0", "ready"}}));
    EXPECT_TRUE(BecomesTop("eth0"));
}

TEST_F(AGatewayOnAScriptedBus, TriesAgainWhenTheCauseOfARefusalEndsRightBehindIt) {
    bus.SetUpWith({{"eth0", "ready"}, {"wwan0", "ready"}});
    ASSERT_TRUE(BecomesTop("eth0"));
    link.SetTopPriorityInterface("wwan0");
    bus.Send(bus.Error(bus.Expect("MoveBefore"), bus.MANAGER, "net.connman.Error.InvalidService"),
             bus.StateChanged(bus.MANAGER, {"wwan0", "online"}));
    bus.Expect("MoveBefore");
}

TEST_F(AGatewayOnAScriptedBus, ActsOnAllThatHasArrivedBehindAnAnswer) {
    bus.Send(bus.Return(bus.SetUpMatches(), bus.DRIVER, bus.MANAGER));
    const auto question = bus.Expect("GetServices");
    link.SetTopPriorityInterface("wwan0");
    bus.Send(bus.Services(question, {{"eth0", "ready"}, {"wwan0", "ready"}}),
             bus.StateChanged(bus.MANAGER, {"wwan0", "failure"}));
    EXPECT_TRUE(IsLogged("its service is not connected, state \"failure\""));
    EXPECT_TRUE(bus.IsQuiet(0ms));
}

TEST_F(AGatewayOnAScriptedBus, SaysOnceThatTheBusFrozeBehindTheGreetingAndGoesOnWhenItThaws) {
    bus.Accept();
    bus.Send(bus.Return(bus.Expect("Hello"), bus.DRIVER, ":1.1"));
    EXPECT_TRUE(link.SetTopPriorityInterface("wwan0"));
    ASSERT_TRUE(IsLogged("is not reachable (no answer within 300 ms); orders wait until it is"));
    EXPECT_FALSE(link.SetTopPriorityInterface("wwan0"));
    bus.Accept(); // as frozen as before
    bus.Send(bus.Return(bus.Expect("Hello"), bus.DRIVER, ":1.2"));
    bus.SetUpWith({{"eth0", "ready"}, {"wwan0", "ready"}});
    bus.Expect("MoveBefore");
    EXPECT_EQ(Logged("is not reachable"), 1U);
}

TEST_F(AGatewayOnAScriptedBus, SaysThatTheBusFrozeWithTheQuestionWhoTheConnectionManagerIs) {
    bus.SetUpMatches();
    ASSERT_TRUE(IsLogged("is not reachable (no answer within 300 ms); orders wait until it is"));
    bus.SetUpWith({{"eth0", "ready"}});
    EXPECT_TRUE(BecomesTop("eth0"));
}

TEST_F(AGatewayOnAScriptedBus, AsksAgainFromTimeToTimeWhileTheConnectionManagerCountsAsAway) {
    bus.Send(bus.Error(bus.SetUpMatches(), bus.DRIVER, DBUS_ERROR_NAME_HAS_NO_OWNER));
    for (int again = 0; again < 5; ++again)
        bus.Send(bus.Error(bus.Expect("GetNameOwner"), bus.DRIVER, DBUS_ERROR_NAME_HAS_NO_OWNER));
    bus.Send(bus.Return(bus.Expect("GetNameOwner"), bus.DRIVER, bus.MANAGER));
    bus.Send(bus.Services(bus.Expect("GetServices"), {{"eth0", "ready"}}));
    EXPECT_TRUE(BecomesTop("eth0"));
    EXPECT_EQ(Logged("net.connman is not on the message bus"), 1U);
}

TEST_F(AGatewayOnAScriptedBus, LooksForAConnectionManagerThatHasGoneUnheard) {
    bus.SetUpWith({{"eth0", "ready"}, {"wwan0", "ready"}});
    ASSERT_TRUE(BecomesTop("eth0"));
    link.SetTopPriorityInterface("wwan0");
    bus.Send(bus.Error(bus.Expect("MoveBefore"), bus.DRIVER, DBUS_ERROR_SERVICE_UNKNOWN));
    bus.Send(bus.Return(bus.Expect("GetNameOwner"), bus.DRIVER, ":1.8"));
    bus.Expect("GetServices");
    EXPECT_EQ(Logged("cannot put"), 0U);
}

TEST_F(AGatewayOnAScriptedBus, PausesBeforeItTurnsToABusThatHungUp) {
    bus.Send(bus.Error(bus.SetUpMatches(), bus.DRIVER, DBUS_ERROR_NAME_HAS_NO_OWNER));
    ASSERT_TRUE(IsLogged("net.connman is not on the message bus"));
    bus.HangUp();
    EXPECT_TRUE(IsLogged("is not reachable (connection lost)"));
}

} // namespace
} // namespace OrvTest
