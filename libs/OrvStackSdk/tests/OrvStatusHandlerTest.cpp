// SPDX-License-Identifier: Apache-2.0
#include "StatusHandlerFixture.h"

#include <algorithm>
#include <chrono>
#include <future>
#include <stdexcept>
#include <thread>

namespace OrvStackSdk {
namespace {

using namespace std::chrono_literals;
using namespace Testing;
using OrvPlatformFake::Entries;
using OrvPlatformFake::FakeConnman;
using OrvPlatformFake::Journal;
using OrvPlatformFake::Only;

const std::string YELLOW_ON = "request LedUpdateRequest(YELLOW, ON)";
const std::string YELLOW_OFF = "request LedUpdateRequest(YELLOW, OFF)";
const std::string YELLOW_BLINK = "request LedUpdateRequest(YELLOW, BLINK)";
const std::string GREEN_ON = "request LedUpdateRequest(GREEN, ON)";
const std::string GREEN_OFF = "request LedUpdateRequest(GREEN, OFF)";
const std::string GREEN_BLINK = "request LedUpdateRequest(GREEN, BLINK)";
const std::string REACHABLE = "request StatusExtNetRequest(true)";
const std::string NOT_REACHABLE = "request StatusExtNetRequest(false)";
// Every update of the route re-asserts the interface of its choice.
const std::string ROUTE_UPDATED = "connman top eth0";

const auto ALL_EVENTS = {OrvEvent::CLOUD_CONNECTED,
                         OrvEvent::CLOUD_DISCONNECTED,
                         OrvEvent::PANEL_CLOUD_ENABLED,
                         OrvEvent::PANEL_CLOUD_DISABLED,
                         OrvEvent::ETHERNET_CONNECTED,
                         OrvEvent::ETHERNET_DISCONNECTED,
                         OrvEvent::ETHERNET_IP_GAINED,
                         OrvEvent::ETHERNET_IP_LOST,
                         OrvEvent::CELLULAR_CONNECTED,
                         OrvEvent::CELLULAR_DISCONNECTED,
                         OrvEvent::CELLULAR_IP_GAINED,
                         OrvEvent::CELLULAR_IP_LOST,
                         OrvEvent::FAILURE};
constexpr OrvEvent UNKNOWN_EVENT{13};

Entries Leds(const Entries& entries) {
    return Only(entries, {"request LedUpdateRequest"});
}

class AStatusHandlerBeingBuilt : public StatusHandlerFixture {};

TEST_F(AStatusHandlerBeingBuilt, SendsNothing) {
    Journal::Clear();
    Start();
    EXPECT_EQ(Journal::Take(), Entries{});
}

class AFreshStatusHandler : public StatusHandlerFixture {
protected:
    AFreshStatusHandler() { Start(); }
};

TEST_F(AFreshStatusHandler, SendsBothLedsAfterTheFirstEvent) {
    EXPECT_EQ(After(OrvEvent::ETHERNET_CONNECTED), (Entries{YELLOW_ON, GREEN_OFF, NOT_REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AFreshStatusHandler, BlinksYellowWhenEthernetGainsAnAddress) {
    Send(OrvEvent::ETHERNET_CONNECTED);
    EXPECT_EQ(After(OrvEvent::ETHERNET_IP_GAINED), (Entries{YELLOW_BLINK, REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AFreshStatusHandler, TurnsToGreenWhenTheCloudConnects) {
    Send({OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED});
    EXPECT_EQ(After(OrvEvent::CLOUD_CONNECTED), (Entries{YELLOW_OFF, GREEN_ON, REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AFreshStatusHandler, BlinksYellowWhenCellularGainsAnAddress) {
    Send(OrvEvent::CELLULAR_CONNECTED);
    EXPECT_EQ(After(OrvEvent::CELLULAR_IP_GAINED), (Entries{YELLOW_BLINK, REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AFreshStatusHandler, CallsTheCloudAloneReachable) {
    EXPECT_EQ(After(OrvEvent::CLOUD_CONNECTED), (Entries{YELLOW_OFF, GREEN_ON, REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AFreshStatusHandler, NeedsTheLinkAsWellAsTheAddress) {
    EXPECT_EQ(After(OrvEvent::ETHERNET_IP_GAINED), (Entries{YELLOW_ON, GREEN_OFF, NOT_REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(OrvEvent::CELLULAR_IP_GAINED), (Entries{NOT_REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AFreshStatusHandler, NeedsLinkAndAddressOnTheSameInterface) {
    Send({OrvEvent::ETHERNET_CONNECTED, OrvEvent::CELLULAR_IP_GAINED});
    EXPECT_EQ(After(UNKNOWN_EVENT), (Entries{NOT_REACHABLE, ROUTE_UPDATED}));
    Send({OrvEvent::ETHERNET_DISCONNECTED, OrvEvent::CELLULAR_IP_LOST});
    Send({OrvEvent::CELLULAR_CONNECTED, OrvEvent::ETHERNET_IP_GAINED});
    EXPECT_EQ(After(UNKNOWN_EVENT), (Entries{NOT_REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AFreshStatusHandler, LeavesTheLedsAloneWhenThePanelEnablesTheCloud) {
    Send(OrvEvent::ETHERNET_CONNECTED);
    EXPECT_EQ(After(OrvEvent::PANEL_CLOUD_ENABLED), (Entries{NOT_REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(OrvEvent::PANEL_CLOUD_DISABLED), (Entries{NOT_REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AFreshStatusHandler, EvaluatesEverythingForAnEventItDoesNotKnow) {
    EXPECT_EQ(After(UNKNOWN_EVENT), (Entries{YELLOW_ON, GREEN_OFF, NOT_REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(UNKNOWN_EVENT), (Entries{NOT_REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AFreshStatusHandler, ReleasesSessionAndRouteWithItself) {
    const std::weak_ptr<RecordingSession> oldSession = session;
    const std::weak_ptr<OrvRoute> oldRoute = route;
    session.reset();
    route.reset();
    Journal::Clear();
    EXPECT_FALSE(oldSession.expired());
    EXPECT_FALSE(oldRoute.expired());
    handler.reset();
    EXPECT_TRUE(oldSession.expired());
    EXPECT_TRUE(oldRoute.expired());
    EXPECT_EQ(Journal::Take(), (Entries{"stop-delivery OrvRoute", "disconnect OrvRoute"}));
}

class AStatusHandlerOnEthernet : public StatusHandlerFixture {
protected:
    AStatusHandlerOnEthernet() {
        Start();
        Send({OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CLOUD_CONNECTED});
    }
};

TEST_F(AStatusHandlerOnEthernet, RepeatsAllButTheLedsWhenAnEventComesTwice) {
    EXPECT_EQ(After(OrvEvent::CLOUD_CONNECTED), (Entries{REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AStatusHandlerOnEthernet, GoesBackToBlinkingYellowWhenTheCloudIsLost) {
    EXPECT_EQ(After(OrvEvent::CLOUD_DISCONNECTED), (Entries{YELLOW_BLINK, GREEN_OFF, REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AStatusHandlerOnEthernet, ShowsNoWayOutWhenTheCableIsPulledWhateverTheAddress) {
    Send(OrvEvent::CLOUD_DISCONNECTED);
    EXPECT_EQ(After(OrvEvent::ETHERNET_DISCONNECTED), (Entries{YELLOW_ON, NOT_REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(OrvEvent::ETHERNET_CONNECTED), (Entries{YELLOW_BLINK, REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(OrvEvent::ETHERNET_IP_LOST), (Entries{YELLOW_ON, NOT_REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(OrvEvent::ETHERNET_IP_GAINED), (Entries{YELLOW_BLINK, REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AStatusHandlerOnEthernet, FindsCellularWhenEthernetGoes) {
    Send({OrvEvent::CLOUD_DISCONNECTED, OrvEvent::CELLULAR_CONNECTED, OrvEvent::CELLULAR_IP_GAINED});
    EXPECT_EQ(After(OrvEvent::ETHERNET_IP_LOST), (Entries{REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(OrvEvent::CELLULAR_DISCONNECTED), (Entries{YELLOW_ON, NOT_REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(OrvEvent::CELLULAR_CONNECTED), (Entries{YELLOW_BLINK, REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(OrvEvent::CELLULAR_IP_LOST), (Entries{YELLOW_ON, NOT_REACHABLE, ROUTE_UPDATED}));
}

TEST_F(AStatusHandlerOnEthernet, BlinksBothLedsFromAFailureOn) {
    EXPECT_EQ(After(OrvEvent::FAILURE), (Entries{YELLOW_BLINK, GREEN_BLINK, REACHABLE, ROUTE_UPDATED}));
    for (const auto event : ALL_EVENTS)
        EXPECT_EQ(Leds(After(event)), Entries{});
}

TEST_F(AStatusHandlerOnEthernet, LeavesTheRestOfTheFailureToTheFlags) {
    Send(OrvEvent::FAILURE);
    EXPECT_EQ(After(OrvEvent::CLOUD_DISCONNECTED), (Entries{REACHABLE, ROUTE_UPDATED}));
    EXPECT_EQ(After(OrvEvent::ETHERNET_DISCONNECTED), (Entries{NOT_REACHABLE, ROUTE_UPDATED}));
}

class AStatusHandlerWhoseLedsFail : public StatusHandlerFixture {
protected:
    AStatusHandlerWhoseLedsFail() {
        Start();
        session->ledUpdateFails = true;
    }
};

TEST_F(AStatusHandlerWhoseLedsFail, SendsTheSameStatesAgainWithEveryEvent) {
    EXPECT_EQ(Leds(After(OrvEvent::ETHERNET_CONNECTED)), (Entries{YELLOW_ON, GREEN_OFF}));
    EXPECT_EQ(Leds(After(OrvEvent::ETHERNET_CONNECTED)), (Entries{YELLOW_ON, GREEN_OFF}));
}

TEST_F(AStatusHandlerWhoseLedsFail, IsContentAfterTheFirstUpdateThatGoesOut) {
    Send(OrvEvent::ETHERNET_CONNECTED);
    session->ledUpdateFails = false;
    EXPECT_EQ(Leds(After(UNKNOWN_EVENT)), (Entries{YELLOW_ON, GREEN_OFF}));
    EXPECT_EQ(Leds(After(UNKNOWN_EVENT)), Entries{});
}

TEST_F(AStatusHandlerWhoseLedsFail, TellsTheLedsApart) {
    session->then = [this](const std::string& line) { session->ledUpdateFails = line == GREEN_OFF; };
    EXPECT_EQ(Leds(After(OrvEvent::ETHERNET_CONNECTED)), (Entries{YELLOW_ON, GREEN_OFF}));
    EXPECT_EQ(Leds(After(OrvEvent::ETHERNET_CONNECTED)), (Entries{GREEN_OFF}));
    session->then = [this](const std::string& line) { session->ledUpdateFails = line == YELLOW_BLINK; };
    EXPECT_EQ(Leds(After(OrvEvent::ETHERNET_IP_GAINED)), (Entries{YELLOW_BLINK, GREEN_OFF}));
    EXPECT_EQ(Leds(After(OrvEvent::ETHERNET_IP_GAINED)), (Entries{YELLOW_BLINK}));
}

/// The three flags that reach the route show in what the route makes of them while it waits to leave Ethernet.
class AStatusHandlerWithAWaitingRoute : public StatusHandlerFixture {
protected:
    AStatusHandlerWithAWaitingRoute() {
        Start();
        route->Tick();
        steadyTime.Advance(10s);
    }

    const std::string byEthernet = "log debug OrvRoute <Tick> \"eth cloud reconnected by itself\"";
    const std::string byCellular = "log debug OrvRoute <Tick> \"cell cloud reconnected by itself\"";
    const std::string pokeStarted = "log debug OrvRoute <Tick> \"Started Poke to cell if wwan0\"";
    Entries RouteLog() { return Only(AfterTick(), {"log"}); }
};

TEST_F(AStatusHandlerWithAWaitingRoute, TellsItOfNothingAtFirst) {
    Send(UNKNOWN_EVENT);
    EXPECT_EQ(RouteLog(), Entries{});
}

TEST_F(AStatusHandlerWithAWaitingRoute, TellsItOfAddressesNotOfLinks) {
    Send({OrvEvent::ETHERNET_CONNECTED, OrvEvent::CELLULAR_CONNECTED, OrvEvent::ETHERNET_IP_GAINED});
    EXPECT_EQ(RouteLog(), Entries{});
    Send({OrvEvent::CELLULAR_DISCONNECTED, OrvEvent::CELLULAR_IP_GAINED});
    EXPECT_EQ(RouteLog(), Entries{pokeStarted});
}

TEST_F(AStatusHandlerWithAWaitingRoute, TellsItOfALostAddress) {
    Send({OrvEvent::CELLULAR_IP_GAINED, OrvEvent::CELLULAR_IP_LOST});
    EXPECT_EQ(RouteLog(), Entries{});
}

TEST_F(AStatusHandlerWithAWaitingRoute, TellsItOfTheCloudWithoutAnyAddress) {
    Send(OrvEvent::CLOUD_CONNECTED);
    EXPECT_EQ(RouteLog(), Entries{byEthernet});
}

TEST_F(AStatusHandlerWithAWaitingRoute, TellsItOfTheCloudOnCellular) {
    Send({OrvEvent::CELLULAR_IP_GAINED, OrvEvent::CLOUD_CONNECTED});
    EXPECT_EQ(RouteLog(), Entries{byCellular});
}

TEST_F(AStatusHandlerWithAWaitingRoute, TellsItOfTheLostCloud) {
    Send({OrvEvent::CLOUD_CONNECTED, OrvEvent::CLOUD_DISCONNECTED});
    EXPECT_EQ(RouteLog(), Entries{});
}

TEST_F(AStatusHandlerWithAWaitingRoute, LeavesEthernetItsAddressWhenTheCableIsPulled) {
    Send({OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CELLULAR_IP_GAINED});
    Send({OrvEvent::ETHERNET_DISCONNECTED, OrvEvent::CLOUD_CONNECTED});
    EXPECT_EQ(RouteLog(), Entries{byEthernet});
}

TEST_F(AStatusHandlerWithAWaitingRoute, TellsItWhenEthernetLosesItsAddress) {
    Send({OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CELLULAR_IP_GAINED, OrvEvent::ETHERNET_IP_LOST});
    Send(OrvEvent::CLOUD_CONNECTED);
    EXPECT_EQ(RouteLog(), Entries{byCellular});
}

class AStatusHandlerInTrouble : public StatusHandlerFixture {
protected:
    AStatusHandlerInTrouble() {
        Start();
        Send(UNKNOWN_EVENT);
    }

    void FailAtRequest(const std::string& request) {
        session->then = [request](const std::string& line) {
            if (line == request)
                throw std::runtime_error("session");
        };
    }
};

TEST_F(AStatusHandlerInTrouble, SkipsTheRestOfTheEventWhenTheSessionThrows) {
    FailAtRequest(YELLOW_OFF);
    Journal::Clear();
    EXPECT_THROW(Send(OrvEvent::CLOUD_CONNECTED), std::runtime_error);
    EXPECT_EQ(Journal::Take(), Entries{YELLOW_OFF});
    EXPECT_NE(ContentOf(STATUS_FILE).find(R"("Cloud Connection","Down")"), std::string::npos);
}

TEST_F(AStatusHandlerInTrouble, GoesOnWithTheFlagThatWasSetBefore) {
    FailAtRequest(YELLOW_OFF);
    EXPECT_THROW(Send(OrvEvent::CLOUD_CONNECTED), std::runtime_error);
    // The yellow state counts as sent: it was handed to the session.
    EXPECT_EQ(After(UNKNOWN_EVENT), (Entries{GREEN_ON, REACHABLE, ROUTE_UPDATED}));
    EXPECT_NE(ContentOf(STATUS_FILE).find(R"("Cloud Connection","Up")"), std::string::npos);
}

TEST_F(AStatusHandlerInTrouble, LeavesRouteAndFilesAloneWhenTheStatusRequestThrows) {
    FailAtRequest(REACHABLE);
    Journal::Clear();
    EXPECT_THROW(Send(OrvEvent::CLOUD_CONNECTED), std::runtime_error);
    EXPECT_EQ(Journal::Take(), (Entries{YELLOW_OFF, GREEN_ON, REACHABLE}));
}

TEST_F(AStatusHandlerInTrouble, LeavesTheFilesAloneWhenTheRouteThrows) {
    FakeConnman::Get().SetCommandHook([](const std::string&) { throw std::runtime_error("route"); });
    EXPECT_THROW(Send(OrvEvent::PANEL_CLOUD_ENABLED), std::runtime_error);
    EXPECT_THROW(Send(OrvEvent::FAILURE), std::runtime_error);
    EXPECT_NE(ContentOf(STATUS_FILE).find(R"("Enterprise Feature","Disabled")"), std::string::npos);
    EXPECT_FALSE(FileExists(ERROR_FILE));

    FakeConnman::Get().SetCommandHook(nullptr);
    Send(UNKNOWN_EVENT);
    EXPECT_NE(ContentOf(STATUS_FILE).find(R"("Enterprise Feature","Enabled")"), std::string::npos);
    EXPECT_TRUE(FileExists(ERROR_FILE));
}

class AStatusHandlerBetweenThreads : public StatusHandlerFixture {
protected:
    AStatusHandlerBetweenThreads() { Start(); }
};

TEST_F(AStatusHandlerBetweenThreads, HandlesEachEventAsOneUnit) {
    Send(UNKNOWN_EVENT);
    Journal::Clear();
    constexpr int EVENTS = 200;
    const auto sendInTurn = [this](OrvEvent first, OrvEvent second) {
        for (int i = 0; i < EVENTS; ++i)
            Send(i % 2 == 0 ? first : second);
    };
    std::thread cloud(sendInTurn, OrvEvent::CLOUD_CONNECTED, OrvEvent::CLOUD_DISCONNECTED);
    std::thread panel(sendInTurn, OrvEvent::PANEL_CLOUD_ENABLED, OrvEvent::PANEL_CLOUD_DISABLED);
    cloud.join();
    panel.join();

    const auto entries = Journal::Take();
    std::size_t next = 0;
    for (int i = 0; i < 2 * EVENTS; ++i) {
        ASSERT_LT(next, entries.size());
        const bool turnsGreen = entries[next] == YELLOW_OFF;
        const bool turnsYellow = entries[next] == YELLOW_ON;
        if (turnsGreen || turnsYellow) {
            ASSERT_LT(next + 3, entries.size());
            EXPECT_EQ(entries[next + 1], turnsGreen ? GREEN_ON : GREEN_OFF);
            next += 2;
        }
        ASSERT_LT(next + 1, entries.size());
        EXPECT_EQ(entries[next].rfind("request StatusExtNetRequest", 0), 0U) << entries[next];
        EXPECT_EQ(entries[next + 1], ROUTE_UPDATED);
        next += 2;
    }
    EXPECT_EQ(next, entries.size());
    EXPECT_EQ(ContentOf(STATUS_FILE), "\"Enterprise Feature\",\"Disabled\"\n"
                                      "\"Cloud Connection\",\"Down\"\n"
                                      "\"Ethernet\",\"Down\"\n"
                                      "\"Cellular\",\"Down\"");
}

TEST_F(AStatusHandlerBetweenThreads, TakesItsOwnLockBeforeTheRoutes) {
    std::future<bool> other;
    session->then = [&](const std::string& line) {
        if (line != YELLOW_OFF)
            return;
        // The route is free while the LEDs are sent.
        other = std::async(std::launch::async, [this] { return route->CloudReconnectNeeded(); });
        EXPECT_EQ(other.wait_for(10s), std::future_status::ready);
    };
    Send(OrvEvent::CLOUD_CONNECTED);
    ASSERT_TRUE(other.valid());
}

TEST_F(AStatusHandlerBetweenThreads, HoldsItsLockUntilTheFilesAreWritten) {
    std::future<void> other;
    wallTime.Set(OrvStatusHandler::Clock::time_point(1s));
    handler = std::make_unique<OrvStatusHandler>(session, route, [&] {
        // Reading the clock is the last step of an event, and part of it.
        if (!other.valid()) {
            other = std::async(std::launch::async, [this] { Send(OrvEvent::CLOUD_CONNECTED); });
            EXPECT_EQ(other.wait_for(20ms), std::future_status::timeout);
        }
        return wallTime.Time();
    });
    Send(OrvEvent::FAILURE);
    ASSERT_TRUE(other.valid());
    EXPECT_EQ(other.wait_for(10s), std::future_status::ready);
}

} // namespace
} // namespace OrvStackSdk
