// SPDX-License-Identifier: Apache-2.0
#include "RouteFixture.h"

#include <chrono>

namespace OrvStackSdk {
namespace {

using namespace std::chrono_literals;
using namespace Testing;
using OrvPlatformFake::Entries;
using OrvPlatformFake::Journal;
using OrvPlatformFake::Only;

class ARouteOnCellular : public RouteFixture {
protected:
    ARouteOnCellular() { BeOnCellular(); }
    const Entries pokeStarted{RouteDebug("Started Poke eth if eth0")};
};

TEST_F(ARouteOnCellular, DoesNothingWithoutAnAddressOnEthernet) {
    time.Advance(1h);
    EXPECT_EQ(AfterTick(), Entries{});
    Update(true, false, false);
    EXPECT_EQ(AfterTick(), Entries{});
}

TEST_F(ARouteOnCellular, ReassertsCellular) {
    Journal::Clear();
    Update(true, true, true);
    EXPECT_EQ(Journal::Take(), Entries{TOP_CELLULAR});
}

TEST_F(ARouteOnCellular, PokesOverEthernetOnceItHasAnAddress) {
    Update(true, true, true);
    EXPECT_EQ(AfterTick(), pokeStarted);
    EXPECT_EQ(AfterTick(), FakeCurl::SetUpLines("https://cloud.example", "eth0") + Entries{"curl perform"});
}

TEST_F(ARouteOnCellular, MirrorsCellularsAddressWhileThePokeRuns) {
    Update(true, true, true);
    route->Tick();
    Update(true, true, false);
    EXPECT_EQ(EffectsOfTick(), Entries{DnsTopic("permit")});
    EXPECT_EQ(EffectsOfTick(), Entries{});
    Update(true, true, true);
    EXPECT_EQ(EffectsOfTick(), Entries{DnsTopic("inhibit")});
    EXPECT_EQ(EffectsOfTick(), Entries{});
}

TEST_F(ARouteOnCellular, MirrorsCellularsAddressOnTheTickThatStartsThePoke) {
    Update(true, true, false);
    EXPECT_EQ(AfterTick(), pokeStarted + Entries{DnsTopic("permit")});
}

TEST_F(ARouteOnCellular, GivesThePokeTwoSecondsWithoutAnAddress) {
    Update(true, true, true);
    route->Tick();
    time.Advance(2s - 1ns);
    Update(true, false, true);
    EXPECT_EQ(Only(AfterTick(), {"curl perform"}), Entries{"curl perform"});
    time.Advance(1ns);
    EXPECT_EQ(AfterTick(), Entries{"curl perform"}); // the last one
    EXPECT_EQ(AfterTick(), Entries{});
    EXPECT_EQ(FakeCurl::LiveHandles(), 2);
}

TEST_F(ARouteOnCellular, GoesOnWithAStoppedPokeWhenTheAddressReturns) {
    Update(true, true, true);
    route->Tick();
    time.Advance(2s);
    Update(true, false, true);
    route->Tick();
    Update(true, true, true);
    EXPECT_EQ(AfterTick(), pokeStarted);
    FakeCurl::Succeed();
    EXPECT_EQ(Only(AfterTick(), {"curl"}), (Entries{"curl perform", "curl info_read"} + FakeCurl::CleanLines()));
}

TEST_F(ARouteOnCellular, ForgetsASuccessThatComesWithTheEndOfTheGraceTime) {
    Update(true, true, true);
    route->Tick();
    time.Advance(2s);
    Update(true, false, true);
    FakeCurl::Succeed();
    EXPECT_EQ(EffectsOfTick(), Entries{});
    EXPECT_EQ(AfterTick(), Entries{});
}

TEST_F(ARouteOnCellular, MirrorsCellularsAddressOnceMoreOnTheTickThatStopsThePoke) {
    Update(true, true, true);
    route->Tick();
    time.Advance(2s);
    Update(true, false, false);
    EXPECT_EQ(EffectsOfTick(), Entries{DnsTopic("permit")});
    Update(true, false, true);
    EXPECT_EQ(EffectsOfTick(), Entries{});
}

TEST_F(ARouteOnCellular, ReturnsToEthernetWhenThePokeSucceeds) {
    Update(true, true, true);
    route->Tick();
    FakeCurl::Succeed();
    EXPECT_EQ(EffectsOfTick(), (Entries{R"(connman dns wwan0 "0.0.0.0" "")", DnsTopic("permit"), TOP_ETHERNET,
                                        RouteDebug("poke success, route to ETH")}));
    EXPECT_FALSE(route->CloudReconnectNeeded());
}

class ARouteSwitchingToEthernet : public RouteFixture {
protected:
    ARouteSwitchingToEthernet() { SwitchToEthernet(); }
};

TEST_F(ARouteSwitchingToEthernet, AsksForAReconnectOnceWhenConnmanShowsEthernet) {
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("route is eth, reconnecting")});
    EXPECT_TRUE(route->CloudReconnectNeeded());
    EXPECT_FALSE(route->CloudReconnectNeeded());
}

TEST_F(ARouteSwitchingToEthernet, ReassertsEthernet) {
    Journal::Clear();
    Update(true, true, true);
    EXPECT_EQ(Journal::Take(), Entries{TOP_ETHERNET});
}

TEST_F(ARouteSwitchingToEthernet, StartsOverWhenConnmanDoesNotFollowWithinThreeSeconds) {
    ConnmanShows({"wwan0", "eth0"});
    time.Advance(3s - 1ns);
    EXPECT_EQ(AfterTick(), Entries{});
    time.Advance(1ns);
    EXPECT_EQ(AfterTick(), (Entries{TOP_ETHERNET, CLEAR_CELLULAR_DNS,
                                    RouteError("Failed to set eth0 as top interface, restarting SM")}));
    EXPECT_FALSE(route->CloudReconnectNeeded());
    EXPECT_EQ(AfterTick(), Entries{RouteDebug(" Cloud connected with Ethernet interface")});
}

class ARouteSettlingOnEthernet : public RouteFixture {
protected:
    ARouteSettlingOnEthernet() { SettleOnEthernet(); }
    const Entries done{CLEAR_CELLULAR_DNS, RouteDebug("cell to eth delay done")};
};

TEST_F(ARouteSettlingOnEthernet, ClearsCellularsDnsAfterFiveSeconds) {
    time.Advance(5s - 1ns);
    EXPECT_EQ(AfterTick(), Entries{});
    time.Advance(1ns);
    EXPECT_EQ(AfterTick(), done);
    EXPECT_EQ(AfterTick(), Entries{RouteDebug(" Cloud connected with Ethernet interface")});
}

TEST_F(ARouteSettlingOnEthernet, WaitsNoLongerOnceTheCloudWasSeenLost) {
    Update(false, true, true);
    EXPECT_EQ(AfterTick(), done);
}

TEST_F(ARouteSettlingOnEthernet, RemembersThatTheCloudWasLostWhenItIsBack) {
    Update(false, true, true);
    Update(true, true, true);
    EXPECT_EQ(AfterTick(), done);
}

} // namespace
} // namespace OrvStackSdk
