// SPDX-License-Identifier: Apache-2.0
#include "KitScene.h"

namespace OrvStackSdk::Testing {
namespace {

class ARouteOnTheKit : public AnApplicationOnTheKit {
protected:
    void LoseTheCloud() {
        BeginWithBothPaths();
        gateway.poke.Fails("eth0", 7);
        Report({OrvEvent::CLOUD_DISCONNECTED});
    }
};

TEST_F(ARouteOnTheKit, MovesWhenTheConnectionManagerHasMoved) {
    LoseTheCloud();
    gateway.connman.SetDelay(400ms);
    ASSERT_TRUE(gateway.AdvanceUntil([&] { return gateway.poke.Attempts("wwan0") == 1; }, 20s));
    gateway.Advance(399ms);
    EXPECT_EQ(gateway.connman.Top(), "eth0");
    gateway.Advance(1ms);
    EXPECT_EQ(gateway.connman.Top(), "wwan0");
}

TEST_F(ARouteOnTheKit, GivesUpOnAConnectionManagerThatRefusesToMove) {
    LoseTheCloud();
    gateway.connman.RefuseToMove(true);
    gateway.Advance(15s);
    EXPECT_EQ(gateway.connman.Top(), "eth0");
    EXPECT_EQ("", Difference("log error OrvRoute \"Failed to set wwan0 as top interface, restarting SM\"\n",
                             gateway.journal.Text({"log error"})));
    gateway.connman.RefuseToMove(false);
    gateway.Advance(15s);
    EXPECT_EQ(gateway.connman.Top(), "wwan0");
}

TEST_F(ARouteOnTheKit, DoesNotMoveLaterForAnOrderThatWasRefused) {
    LoseTheCloud();
    gateway.connman.SetDelay(1s);
    gateway.connman.RefuseToMove(true);
    ASSERT_TRUE(gateway.AdvanceUntil([&] { return gateway.poke.Attempts("wwan0") == 1; }, 20s));
    gateway.connman.RefuseToMove(false);
    gateway.Advance(2s);
    EXPECT_EQ(gateway.connman.Top(), "eth0");
}

TEST_F(ARouteOnTheKit, DoesNotMoveToAnInterfaceThatIsNotThere) {
    LoseTheCloud();
    gateway.connman.Disappear("wwan0");
    gateway.Advance(15s);
    EXPECT_EQ(gateway.connman.Order(), (Lines{"eth0"}));
    gateway.connman.Appear("wwan0");
    EXPECT_EQ(gateway.connman.Order(), (Lines{"eth0", "wwan0"}));
    gateway.Advance(30s);
    EXPECT_EQ(gateway.connman.Top(), "wwan0");
}

TEST_F(ARouteOnTheKit, HasNoTopWhenNothingIsConnected) {
    gateway.connman.Disappear("eth0");
    gateway.connman.Disappear("wwan0");
    EXPECT_EQ(gateway.connman.Top(), "");
}

} // namespace
} // namespace OrvStackSdk::Testing
