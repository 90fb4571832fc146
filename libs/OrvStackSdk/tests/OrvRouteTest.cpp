// SPDX-License-Identifier: Apache-2.0
#include "RouteFixture.h"

#include <atomic>
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
              (Entries{TOP_ETHERNET, "connect OrvRoute refused", "stop-delivery OrvRoute",
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

// What they would do to the name at the same time, ThreadSanitizer sees.
TEST_F(ARouteBetweenThreads, NamesThePathBesideAnotherRoute) {
    OrvRoute second(time.Now());
    std::atomic<int> arrived{0};
    const auto loseOften = [&](OrvRoute& one) {
        for (int round = 1; round <= 2000; ++round) {
            for (const bool cloud : {false, true}) {
                one.UpdateRoute(cloud, true, false);
                one.Tick();
            }
            // Orders nothing: both find that the path is not named yet.
            arrived.fetch_add(1, std::memory_order_relaxed);
            while (arrived.load(std::memory_order_relaxed) < 2 * round)
                std::this_thread::yield();
            one.Tick();
        }
    };
    auto other = std::async(std::launch::async, [&] { loseOften(second); });
    loseOften(*route);
    other.get();
    EXPECT_EQ(ConnInterfaceString, "Ethernet");
}

} // namespace
} // namespace OrvStackSdk
