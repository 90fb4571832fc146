// SPDX-License-Identifier: Apache-2.0
#include "KitScene.h"

namespace OrvStackSdk::Testing {
namespace {

class APokeOnTheKit : public AnApplicationOnTheKit {
protected:
    /// Until the first poke over Cellular begins.
    void LoseTheCloud() {
        BeginWithBothPaths();
        Report({OrvEvent::CLOUD_DISCONNECTED});
        gateway.AdvanceUntil([&] { return gateway.poke.Attempts("wwan0") == 1; }, 20s);
    }

    std::string Poked() { return gateway.journal.Text({"poke wwan0", "log error"}); }
};

TEST_F(APokeOnTheKit, TakesItsTimeToReachTheCloud) {
    gateway.poke.Reaches("wwan0", 3s);
    LoseTheCloud();
    gateway.Advance(2900ms);
    EXPECT_EQ(Poked(), "");
    gateway.Advance(100ms);
    EXPECT_EQ(Poked(), "poke wwan0 reached the cloud\n");
    EXPECT_EQ(gateway.connman.Top(), "wwan0");
}

TEST_F(APokeOnTheKit, IsMadeAnewUntilItReachesTheCloud) {
    gateway.poke.Fails("wwan0", 60, 1s);
    LoseTheCloud();
    gateway.Advance(1s);
    gateway.poke.Reaches("wwan0");
    gateway.Advance(1s);
    EXPECT_EQ("", Difference("poke wwan0 failed with 60\n"
                             "log error OrvRoute \"poke error 60\"\n"
                             "poke wwan0 reached the cloud\n",
                             Poked()));
    EXPECT_EQ(gateway.poke.Attempts("wwan0"), 2);
}

TEST_F(APokeOnTheKit, IsGivenUpAfterFifteenSecondsWithoutAnAnswer) {
    gateway.poke.Hangs("wwan0");
    LoseTheCloud();
    gateway.Advance(14900ms);
    EXPECT_EQ(Poked(), "");
    gateway.Advance(100ms);
    EXPECT_EQ("", Difference("poke wwan0 failed with 28\nlog error OrvRoute \"poke error 28\"\n", Poked()));
    gateway.poke.Reaches("wwan0", 15s);
    gateway.Advance(60s);
    EXPECT_EQ(gateway.journal.Text({"poke wwan0 reached"}), "") << "too late";
}

TEST_F(APokeOnTheKit, IsLeftBehindByAClientThatIsReleasedMeanwhile) {
    gateway.poke.Hangs("wwan0");
    LoseTheCloud();
    const auto released = std::move(client);
    EXPECT_EQ(gateway.poke.Attempts("wwan0"), 1);
}

} // namespace
} // namespace OrvStackSdk::Testing
