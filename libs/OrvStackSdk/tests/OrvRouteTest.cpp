// SPDX-License-Identifier: Apache-2.0
#include "ConnInterfaceString.h"
#include "RouteFixture.h"

#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

namespace OrvStackSdk {
namespace {

using namespace std::chrono_literals;
using namespace Testing;
using OrvPlatformFake::Entries;
using OrvPlatformFake::FakeBroker;
using OrvPlatformFake::FakeConnman;
using OrvPlatformFake::FakeGateway;
using OrvPlatformFake::Journal;
using OrvPlatformFake::Only;

const std::string TOP_ETHERNET = "connman top eth0";
const std::string TOP_CELLULAR = "connman top wwan0";
const std::string CLEAR_CELLULAR_DNS = R"(connman dns wwan0 "" "")";

void ConnmanShows(const std::vector<std::string>& order) {
    FakeConnman::Get().SetOrder(order);
    FakeConnman::Get().SetObedient(false);
}

class ARouteBeingBuilt : public RouteFixture {
protected:
    ARouteBeingBuilt() {
        route.reset();
        Journal::Clear();
    }

    static constexpr const char* CANNOT_CONNECT = "OrvRoute cannot connect to MQTT broker.";
};

TEST_F(ARouteBeingBuilt, PutsEthernetOnTopThenConnectsWithoutAWill) {
    route = std::make_unique<OrvRoute>(time.Now());
    EXPECT_EQ(Journal::Take(), (Entries{TOP_ETHERNET, "connect OrvRoute"}));
    EXPECT_TRUE(FakeBroker::Get().IsConnected("OrvRoute"));
}

TEST_F(ARouteBeingBuilt, ThrowsWithARecordWhenTheBrokerCannotBeReached) {
    FakeBroker::Get().SetReachable(false);
    try {
        route = std::make_unique<OrvRoute>(time.Now());
        FAIL() << "no exception";
    } catch (const std::runtime_error& error) {
        EXPECT_STREQ(error.what(), CANNOT_CONNECT);
    }
    EXPECT_EQ(Journal::Take(),
              (Entries{TOP_ETHERNET, "connect OrvRoute refused",
                       OrvPlatformFake::Entry::Wrapper(5, false, "libs/OrvStackSdk/src/OrvRoute", 37,
                                                       "OrvStackSdk::OrvRoute::OrvRoute()", CANNOT_CONNECT)}));
    EXPECT_EQ(FakeGateway::OpenConfigStores(), 0);
}

TEST_F(ARouteBeingBuilt, KeepsTheConfigurationUntilItIsComplete) {
    int openMeanwhile = 0;
    FakeConnman::Get().SetCommandHook([&](const std::string&) { openMeanwhile = FakeGateway::OpenConfigStores(); });
    route = std::make_unique<OrvRoute>(time.Now());
    EXPECT_EQ(openMeanwhile, 1);
    EXPECT_EQ(FakeGateway::OpenConfigStores(), 0);
}

TEST_F(ARouteBeingBuilt, GoesByTheSteadyClockUnlessToldOtherwise) {
    route = std::make_unique<OrvRoute>();
    Update(false, true, true);
    route->Tick();
    EXPECT_EQ(AfterTick(), Entries{}); // ten seconds have not passed
}

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

class ACloudLossOnEthernet : public RouteFixture {};

TEST_F(ACloudLossOnEthernet, LeadsToCellularAndBack) {
    Update(true, true, true);
    EXPECT_EQ(AfterTick(), Entries{RouteDebug(" Cloud connected with Ethernet interface")});
    Update(false, false, true);
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("eth cloud lost, start delay to cell")});
    time.Advance(10s);
    EXPECT_EQ(AfterTick(), (Entries{DnsTopic("inhibit"), RouteDebug("Started Poke to cell if wwan0")}));
    FakeCurl::Succeed();
    EXPECT_EQ(EffectsOfTick(), (Entries{TOP_CELLULAR, RouteDebug("poke success, route to Cell")}));
    FakeCurl::KeepRunning();
    EXPECT_EQ(AfterTick(), (Entries{RouteDebug("route is Cell, reconnecting"),
                                    RouteDebug(" Cloud connected with Cellular interface")}));
    EXPECT_TRUE(route->CloudReconnectNeeded());
    Update(true, true, true);
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("Started Poke eth if eth0")});
    FakeCurl::Succeed();
    EXPECT_EQ(EffectsOfTick(), (Entries{R"(connman dns wwan0 "0.0.0.0" "")", DnsTopic("permit"), TOP_ETHERNET,
                                        RouteDebug("poke success, route to ETH")}));
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("route is eth, reconnecting")});
    EXPECT_TRUE(route->CloudReconnectNeeded());
    time.Advance(5s);
    EXPECT_EQ(AfterTick(), (Entries{CLEAR_CELLULAR_DNS, RouteDebug("cell to eth delay done")}));
    EXPECT_EQ(AfterTick(), Entries{RouteDebug(" Cloud connected with Ethernet interface")});
    EXPECT_EQ(AfterTick(), Entries{});
}

/// Exceptions of the platform reach the caller; the route goes on from what it had done before.
class ARouteWhosePlatformThrows : public RouteFixture {
protected:
    void BreakPublications() {
        FakeBroker::Get().SetPublishHook([](const std::string&) { throw std::runtime_error("broker"); });
    }
    void MendPublications() { FakeBroker::Get().SetPublishHook(nullptr); }
};

TEST_F(ARouteWhosePlatformThrows, ReleasesItsLock) {
    FakeConnman::Get().SetCommandHook([](const std::string&) { throw std::runtime_error("connman"); });
    EXPECT_THROW(Update(true, true, true), std::runtime_error);
    FakeConnman::Get().SetCommandHook(nullptr);
    EXPECT_FALSE(route->CloudReconnectNeeded());
    EXPECT_EQ(AfterTick(), Entries{RouteDebug(" Cloud connected with Ethernet interface")});
}

TEST_F(ARouteWhosePlatformThrows, WaitsWithAPokeThatItCouldNotAnnounce) {
    LoseCloudOnEthernet();
    time.Advance(10s);
    BreakPublications();
    EXPECT_THROW(route->Tick(), std::runtime_error);
    MendPublications();
    time.Advance(10s);
    EXPECT_EQ(EffectsOfTick(), Entries{});
    Update(true, true, true);
    EXPECT_EQ(EffectsOfTick(), Entries{RouteDebug("eth cloud reconnected by itself")});
}

TEST_F(ARouteWhosePlatformThrows, LeavesAnAbortedPokeWithoutASecondAnnouncement) {
    StartCellularPoke();
    time.Advance(20s);
    BreakPublications();
    EXPECT_THROW(route->Tick(), std::runtime_error);
    EXPECT_EQ(FakeCurl::LiveHandles(), 0);
    MendPublications();
    EXPECT_EQ(AfterTick(), Entries{RouteDebug("poke cell aborted")});
}

TEST_F(ARouteWhosePlatformThrows, DoesNotMindAFailedPublication) {
    FakeBroker::Get().SetPublishStatus(4);
    LoseCloudOnEthernet();
    time.Advance(10s);
    EXPECT_EQ(AfterTick(), (Entries{DnsTopic("inhibit"), RouteDebug("Started Poke to cell if wwan0")}));
}

class ARouteBetweenThreads : public RouteFixture {
protected:
    /// True when `call` cannot get past a tick that is in the middle of a publication.
    template <typename Call>
    bool WaitsForTheTick(Call call) {
        LoseCloudOnEthernet();
        time.Advance(10s);
        std::future<void> other;
        bool waited = false;
        FakeBroker::Get().SetPublishHook([&](const std::string&) {
            other = std::async(std::launch::async, call);
            waited = other.wait_for(20ms) == std::future_status::timeout;
        });
        route->Tick();
        FakeBroker::Get().SetPublishHook(nullptr);
        return waited && other.wait_for(10s) == std::future_status::ready;
    }
};

TEST_F(ARouteBetweenThreads, UpdatesAfterATickThatIsUnderWay) {
    EXPECT_TRUE(WaitsForTheTick([this] { Update(false, true, true); }));
}

TEST_F(ARouteBetweenThreads, AnswersAfterATickThatIsUnderWay) {
    EXPECT_TRUE(WaitsForTheTick([this] { route->CloudReconnectNeeded(); }));
}

TEST_F(ARouteBetweenThreads, TicksAfterATickThatIsUnderWay) {
    EXPECT_TRUE(WaitsForTheTick([this] { route->Tick(); }));
}

TEST_F(ARouteBetweenThreads, GivesEachReconnectToOneAsker) {
    SwitchToCellular();
    route->Tick();
    const auto askOften = [this] {
        int answers = 0;
        for (int i = 0; i < 100; ++i)
            answers += route->CloudReconnectNeeded() ? 1 : 0;
        return answers;
    };
    auto first = std::async(std::launch::async, askOften);
    auto second = std::async(std::launch::async, askOften);
    auto ticks = std::async(std::launch::async, [this] {
        for (int i = 0; i < 100; ++i)
            route->Tick();
    });
    for (int i = 0; i < 100; ++i)
        Update(true, false, i % 2 == 0);
    ticks.get();
    EXPECT_EQ(first.get() + second.get(), 1);
}

} // namespace
} // namespace OrvStackSdk
