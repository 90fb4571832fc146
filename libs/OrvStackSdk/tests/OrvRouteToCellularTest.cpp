// SPDX-License-Identifier: Apache-2.0
#include "ConnInterfaceString.h"
#include "RouteFixture.h"

#include <chrono>
#include <utility>

namespace OrvStackSdk {
namespace {

using namespace std::chrono_literals;
using namespace Testing;
using OrvPlatformFake::Entries;
using OrvPlatformFake::FakeBroker;
using OrvPlatformFake::Journal;

class AFreshRoute : public RouteFixture {};

TEST_F(AFreshRoute, SaysGoodbyeToTheBrokerAndLeavesTheDnsTopicAlone) {
    StartCellularPoke();
    Journal::Clear();
    route.reset();
    EXPECT_EQ(Journal::Take(), (Entries{"stop-delivery OrvRoute", "disconnect OrvRoute"}));
    EXPECT_EQ(FakeBroker::Get().Retained("/orv/network/wan/inhibit_dns"), "inhibit");
}

TEST_F(AFreshRoute, TakesTheCloudForLostUntilToldOtherwise) {
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("eth cloud lost, start delay to cell")});
}

TEST_F(AFreshRoute, NeedsNoReconnect) {
    EXPECT_FALSE(route->CloudReconnectNeeded());
}

TEST_F(AFreshRoute, ReassertsEthernetWithEveryUpdate) {
    Update(true, true, true);
    Update(true, true, true);
    Update(false, false, false);
    EXPECT_EQ(Journal::Take(), (Entries{TOP_ETHERNET, TOP_ETHERNET, TOP_ETHERNET}));
}

TEST_F(AFreshRoute, ReportsTheCloudOnEthernetOnceAnEpisode) {
    Update(true, true, false);
    const Entries report{RouteDebug(" Cloud connected with Ethernet interface")};
    EXPECT_EQ(AfterTick(), report);
    EXPECT_EQ(ConnInterfaceString, "Ethernet");
    EXPECT_EQ(AfterTick(), Entries{});
    Update(false, true, false);
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("eth cloud lost, start delay to cell")});
    Update(true, true, false);
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("eth cloud reconnected by itself")});
    EXPECT_EQ(AfterTick(), report);
}

TEST_F(AFreshRoute, SharesTheReportedCloudWithOtherRoutes) {
    OrvRoute other(time.Now());
    other.UpdateRoute(true, true, false);
    other.Tick();
    Update(true, true, false);
    EXPECT_EQ(AfterTick(), Entries{});
    other.UpdateRoute(false, true, false);
    other.Tick();
    EXPECT_EQ(AfterTick(), Entries{RouteDebug(" Cloud connected with Ethernet interface")});
}

class ARouteWhoseCloudIsLost : public RouteFixture {
protected:
    ARouteWhoseCloudIsLost() {
        Update(false, true, false);
        route->Tick();
    }
    const Entries pokeStarted{DnsTopic("inhibit"), RouteDebug("Started Poke to cell if wwan0")};
};

TEST_F(ARouteWhoseCloudIsLost, WaitsTenSecondsBeforeItTriesCellular) {
    Update(false, true, true);
    EXPECT_EQ(AfterTick(), Entries{});
    time.Advance(10s - 1ns);
    EXPECT_EQ(AfterTick(), Entries{});
    time.Advance(1ns);
    EXPECT_EQ(AfterTick(), pokeStarted);
}

TEST_F(ARouteWhoseCloudIsLost, WaitsForCellularHoweverLongItTakes) {
    time.Advance(1h);
    EXPECT_EQ(AfterTick(), Entries{});
    Update(false, true, true);
    EXPECT_EQ(AfterTick(), pokeStarted);
}

TEST_F(ARouteWhoseCloudIsLost, FollowsACloudThatIsBackOnCellular) {
    Update(true, false, true);
    EXPECT_EQ(AfterTick(), (Entries{DnsTopic("inhibit"), RouteDebug("cell cloud reconnected by itself")}));
    Journal::Clear();
    Update(true, false, true);
    EXPECT_EQ(Journal::Take(), Entries{TOP_CELLULAR});
    EXPECT_FALSE(route->CloudReconnectNeeded());
}

TEST_F(ARouteWhoseCloudIsLost, StaysWithACloudThatIsBackOnEthernet) {
    for (const auto& [ethernet, cellular] : {std::pair{true, true}, {true, false}, {false, false}}) {
        Update(true, ethernet, cellular);
        EXPECT_EQ(AfterTick(), Entries{RouteDebug("eth cloud reconnected by itself")});
        Journal::Clear();
        Update(false, ethernet, cellular);
        EXPECT_EQ(Journal::Take(), Entries{TOP_ETHERNET});
        route->Tick();
    }
}

TEST_F(ARouteWhoseCloudIsLost, CountsTheDelayFromTheLatestLoss) {
    time.Advance(9s);
    Update(true, true, true);
    route->Tick();
    Update(false, true, true);
    route->Tick();
    time.Advance(9s);
    EXPECT_EQ(AfterTick(), Entries{});
    time.Advance(1s);
    EXPECT_EQ(AfterTick(), pokeStarted);
}

class ARoutePokingCellular : public RouteFixture {
protected:
    ARoutePokingCellular() {
        StartCellularPoke();
        route->Tick();
    }
    const Entries aborted =
        Entries{"curl perform"} + FakeCurl::CleanLines() + Entries{DnsTopic("permit"), RouteDebug("poke cell aborted")};
};

TEST_F(ARoutePokingCellular, GivesUpAfterTwentySeconds) {
    time.Advance(20s - 1ns);
    EXPECT_EQ(EffectsOfTick(), Entries{});
    time.Advance(1ns);
    EXPECT_EQ(AfterTick(), aborted);
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("eth cloud lost, start delay to cell")});
}

TEST_F(ARoutePokingCellular, GivesUpWhenTheCloudIsBack) {
    Update(true, true, true);
    EXPECT_EQ(AfterTick(), aborted);
}

TEST_F(ARoutePokingCellular, GivesUpWhenCellularLosesItsAddress) {
    Update(false, true, false);
    EXPECT_EQ(AfterTick(), aborted);
}

TEST_F(ARoutePokingCellular, SucceedsEvenOnTheTickThatWouldGiveUp) {
    time.Advance(25s);
    Update(true, true, false);
    FakeCurl::Succeed();
    EXPECT_EQ(EffectsOfTick(), (Entries{TOP_CELLULAR, RouteDebug("poke success, route to Cell")}));
}

TEST_F(ARoutePokingCellular, RetriesAFailedAttempt) {
    FakeCurl::FailWith(CURLE_COULDNT_CONNECT);
    EXPECT_EQ(EffectsOfTick(), Entries{RouteError("poke error 7")});
    EXPECT_EQ(EffectsOfTick(), Entries{RouteError("poke error 7")});
    FakeCurl::Succeed();
    EXPECT_EQ(EffectsOfTick(), (Entries{TOP_CELLULAR, RouteDebug("poke success, route to Cell")}));
}

TEST_F(ARoutePokingCellular, StillPrefersEthernet) {
    Journal::Clear();
    Update(false, true, true);
    EXPECT_EQ(Journal::Take(), Entries{TOP_ETHERNET});
}

class ARouteSwitchingToCellular : public RouteFixture {
protected:
    ARouteSwitchingToCellular() { SwitchToCellular(); }
};

TEST_F(ARouteSwitchingToCellular, AsksForAReconnectOnceWhenConnmanShowsCellular) {
    EXPECT_FALSE(route->CloudReconnectNeeded());
    EXPECT_EQ(AfterTick(), (Entries{RouteDebug("route is Cell, reconnecting"),
                                    RouteDebug(" Cloud connected with Cellular interface")}));
    EXPECT_EQ(ConnInterfaceString, "Cellular");
    EXPECT_TRUE(route->CloudReconnectNeeded());
    EXPECT_FALSE(route->CloudReconnectNeeded());
}

TEST_F(ARouteSwitchingToCellular, DoesNotReportACloudThatWasReportedAlready) {
    OrvRoute other(time.Now());
    other.UpdateRoute(true, true, false);
    other.Tick();
    ConnmanShows({"wwan0"});
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("route is Cell, reconnecting")});
    EXPECT_EQ(ConnInterfaceString, "Ethernet");
}

TEST_F(ARouteSwitchingToCellular, ReassertsCellular) {
    Journal::Clear();
    Update(false, true, true);
    EXPECT_EQ(Journal::Take(), Entries{TOP_CELLULAR});
}

TEST_F(ARouteSwitchingToCellular, StartsOverWhenConnmanDoesNotFollowWithinThreeSeconds) {
    ConnmanShows({"eth0", "wwan0"});
    time.Advance(3s - 1ns);
    EXPECT_EQ(AfterTick(), Entries{});
    time.Advance(1ns);
    EXPECT_EQ(AfterTick(), (Entries{DnsTopic("permit"), TOP_ETHERNET,
                                    RouteError("Failed to set wwan0 as top interface, restarting SM")}));
    EXPECT_FALSE(route->CloudReconnectNeeded());
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("eth cloud lost, start delay to cell")});
}

TEST_F(ARouteSwitchingToCellular, StartsOverWhenConnmanIsAway) {
    ConnmanShows({});
    time.Advance(3s);
    EXPECT_EQ(AfterTick(), (Entries{DnsTopic("permit"), TOP_ETHERNET,
                                    RouteError("Failed to set wwan0 as top interface, restarting SM")}));
}

TEST_F(ARouteSwitchingToCellular, AcceptsALateSwitch) {
    time.Advance(1h);
    EXPECT_EQ(EffectsOfTick().front(), RouteDebug("route is Cell, reconnecting"));
}

} // namespace
} // namespace OrvStackSdk
