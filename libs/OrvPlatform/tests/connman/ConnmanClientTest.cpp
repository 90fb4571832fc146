// SPDX-License-Identifier: Apache-2.0
// Against a real message bus and a fake connection manager.
#include "ConnmanFixture.h"
#include "NoMoreDescriptors.h"
#include "ProcessFigures.h"

#include <algorithm>
#include <gtest/gtest.h>

namespace OrvTest {
namespace {

using namespace std::chrono_literals;
using OrvPlatform::ConnmanClient;

TEST_F(AConnectedGateway, PutsAnInterfaceOnTop) {
    EXPECT_TRUE(link.SetTopPriorityInterface("wwan0"));
    EXPECT_TRUE(BecomesTop("wwan0"));
    EXPECT_EQ(CallsUntilNow(), "MoveBefore wwan0 eth0");
    EXPECT_EQ(Logged("wwan0 is put on top"), 1U);
}

TEST_F(AConnectedGateway, AsksNothingWhenTheInterfaceIsOnTopAlready) {
    for (int i = 0; i < 100; ++i)
        EXPECT_TRUE(link.SetTopPriorityInterface("eth0"));
    EXPECT_EQ(CallsUntilNow(), "");
    EXPECT_EQ(Logged("put on top"), 0U);
}

TEST_F(AConnectedGateway, FollowsTheConnectionManagersOwnOrder) {
    connman->Do("services wwan0:ready eth0:ready");
    EXPECT_TRUE(BecomesTop("wwan0"));
    connman->Do("state wwan0 failure");
    EXPECT_TRUE(BecomesTop(""));
    connman->Do("services eth0:ready");
    EXPECT_TRUE(BecomesTop("eth0"));
}

TEST_F(AConnectedGateway, DoesNotFightForAnOrderThatHasBeenCarriedOut) {
    link.SetTopPriorityInterface("wwan0");
    ASSERT_TRUE(BecomesTop("wwan0"));
    CallsUntilNow();
    connman->Do("services eth0:online wwan0:ready");
    ASSERT_TRUE(BecomesTop("eth0"));
    EXPECT_EQ(CallsUntilNow(), "");
}

TEST_F(AConnectedGateway, CarriesOutOnlyTheLatestOfSeveralOrders) {
    connman->Freeze();
    link.SetDnsConfiguration("eth0", {"203.0.113.99"}); // occupies the connection manager
    for (int i = 0; i < 50; ++i) {
        link.SetTopPriorityInterface("wwan0");
        link.SetTopPriorityInterface("eth0");
        link.SetDnsConfiguration("wwan0", {"198.51.100." + std::to_string(i)});
        link.SetTopPriorityInterface("wwan0");
    }
    connman->Thaw();
    ASSERT_TRUE(BecomesTop("wwan0"));
    ASSERT_TRUE(IsLogged("name servers of wwan0: 198.51.100.49"));
    const std::string calls = connman->Calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), ';'), 2) << calls;
    EXPECT_EQ(Logged("wwan0 is put on top"), 1U);
}

TEST_F(AConnectedGateway, ReturnsToTheFirstInterfaceWhenThatWasWantedLast) {
    link.SetTopPriorityInterface("wwan0");
    link.SetTopPriorityInterface("eth0");
    const std::string calls = CallsUntilNow();
    EXPECT_TRUE(calls.empty() || calls == "MoveBefore wwan0 eth0;MoveBefore eth0 wwan0") << calls;
    EXPECT_TRUE(BecomesTop("eth0"));
}

TEST_F(AConnectedGateway, ReturnsToTheFirstInterfaceWhenAnotherOneIsUnderWay) {
    connman->Freeze();
    link.SetTopPriorityInterface("wwan0");
    ASSERT_TRUE(IsLogged("is asked to put wwan0 on top and has not answered"));
    EXPECT_TRUE(link.SetTopPriorityInterface("eth0"));
    connman->Thaw();
    EXPECT_TRUE(IsLogged("eth0 is put on top"));
    EXPECT_EQ(connman->Calls(), "MoveBefore wwan0 eth0;MoveBefore eth0 wwan0");
}

TEST_F(AConnectedGateway, KnowsTheNewOrderBeforeTheConnectionManagerTellsIt) {
    connman->Do("quiet");
    link.SetTopPriorityInterface("wwan0");
    EXPECT_TRUE(BecomesTop("wwan0"));
}

TEST_F(AConnectedGateway, SaysOnceHowLongAnAnswerIsOwed) {
    connman->Freeze();
    link.SetTopPriorityInterface("wwan0");
    ASSERT_TRUE(IsLogged("has not answered for 300 ms"));
    EXPECT_FALSE(WaitUntil([&] { return Logged("has not answered") > 1; }, 3 * FAST.answer));
}

TEST_F(AConnectedGateway, CarriesOutTheLastOrderWhenAFrozenConnectionManagerThaws) {
    connman->Freeze();
    link.SetTopPriorityInterface("wwan0");
    ASSERT_TRUE(IsLogged("is asked to put wwan0 on top and has not answered for 300 ms"));
    EXPECT_EQ(link.TopPriorityInterface(), "eth0");
    link.SetTopPriorityInterface("eth0");
    link.SetTopPriorityInterface("wwan0");
    connman->Thaw();
    EXPECT_TRUE(BecomesTop("wwan0"));
    EXPECT_TRUE(IsLogged("the connection manager answers again"));
    EXPECT_EQ(Logged("has not answered"), 1U);
}

TEST_F(AConnectedGateway, CarriesOutAnOrderWhenAFrozenBusThaws) {
    bus.Freeze();
    link.SetTopPriorityInterface("wwan0");
    bus.Thaw();
    EXPECT_TRUE(BecomesTop("wwan0"));
}

TEST_F(AConnectedGateway, KeepsAnOrderWhileTheServiceIsNotConnectedAndCarriesItOutThen) {
    connman->Do("state wwan0 idle");
    CallsUntilNow(); // the news comes before the answer to a later call
    for (int i = 0; i < 20; ++i)
        EXPECT_FALSE(link.SetTopPriorityInterface("wwan0"));
    EXPECT_EQ(CallsUntilNow(), "");
    EXPECT_EQ(Logged("cannot put"), 1U);
    EXPECT_EQ(Logged("cannot put wwan0 on top now: its service is not connected, state \"idle\""), 1U);
    connman->Do("state wwan0 ready");
    EXPECT_TRUE(BecomesTop("wwan0"));
}

TEST_F(AConnectedGateway, RefusesAnInterfaceWithoutAService) {
    EXPECT_FALSE(link.SetTopPriorityInterface("ppp0"));
    EXPECT_FALSE(link.SetDnsConfiguration("ppp0", {}));
    EXPECT_FALSE(link.SetTopPriorityInterface(""));
    EXPECT_TRUE(IsLogged("cannot put ppp0 on top now: there is no service on this interface"));
    EXPECT_TRUE(IsLogged("cannot set name servers of ppp0 now: there is no service on this interface"));
    EXPECT_TRUE(IsLogged("names none: check [interfaces]"));
}

TEST_F(AConnectedGateway, LogsARefusalOnceAndTriesAgainWhenTheServicesChange) {
    for (const std::string error : {"net.connman.Error.InvalidService", "net.connman.Error.NotSupported"}) {
        connman->Do("refuse MoveBefore " + error);
        link.SetTopPriorityInterface("wwan0");
        ASSERT_TRUE(IsLogged("cannot put wwan0 on top now: " + error));
        link.SetTopPriorityInterface("wwan0");
        EXPECT_NE(CallsUntilNow(), "");
        EXPECT_EQ(Logged(error), 1U);
    }
    connman->Do("refuse -");
    connman->Do("services eth0:ready wwan0:online");
    EXPECT_TRUE(BecomesTop("wwan0"));
}

TEST_F(AConnectedGateway, SaysWhatToSetWhenAMoveIsRefusedBecauseOfTheIpFamilies) {
    connman->Do("refuse MoveBefore net.connman.Error.InvalidService");
    connman->Do("services eth0:ready wwan0:ready:ipv4-off");
    link.SetTopPriorityInterface("wwan0");
    EXPECT_TRUE(IsLogged("if their IP families differ, \"connmanctl config eth0 --ipv6 off\" lets them be moved"));
    connman->Do("services eth0:ready wwan0:ready:ipv6-off");
    EXPECT_TRUE(IsLogged("if their IP families differ, \"connmanctl config wwan0 --ipv6 auto\" lets them be moved"));
    connman->Do("services eth0:ready:ipv6-off wwan0:ready:ipv4-off");
    connman->Do("refuse MoveBefore net.connman.Error.Failed");
    connman->Do("services eth0:ready:ipv6-off wwan0:online:ipv4-off");
    EXPECT_TRUE(IsLogged("cannot put wwan0 on top now: net.connman.Error.Failed"));
    EXPECT_EQ(Logged("lets them be moved"), 2U);
}

TEST_F(AConnectedGateway, EmptiesAServicesNameServersWithoutGivingItAnUnspecifiedAddress) {
    EXPECT_TRUE(link.SetDnsConfiguration("wwan0", {"0.0.0.0"}));
    EXPECT_EQ(CallsUntilNow(), "SetProperty wwan0 Nameservers.Configuration=none");
    link.SetDnsConfiguration("wwan0", {"0.0.0.0"});
    EXPECT_EQ(CallsUntilNow(), "");
    link.SetDnsConfiguration("wwan0", {"0.0.0.0", "198.51.100.1"});
    EXPECT_EQ(CallsUntilNow(), "SetProperty wwan0 Nameservers.Configuration=198.51.100.1");
    link.SetDnsConfiguration("wwan0", {"::"});
    EXPECT_EQ(CallsUntilNow(), "SetProperty wwan0 Nameservers.Configuration=none");
    link.SetDnsConfiguration("wwan0", {});
    EXPECT_EQ(CallsUntilNow(), "SetProperty wwan0 Nameservers.Configuration=");
    link.SetDnsConfiguration("wwan0", {});
    EXPECT_EQ(CallsUntilNow(), "");
}

TEST_F(AConnectedGateway, SetsNameServersOfBothFamiliesAsideAndGivesThemBack) {
    link.SetDnsConfiguration("wwan0", {"2001:db8::53", "198.51.100.1"});
    EXPECT_EQ(CallsUntilNow(), "SetProperty wwan0 Nameservers.Configuration=2001:db8::53,198.51.100.1");
    link.SetDnsConfiguration("wwan0", {"0.0.0.0"});
    EXPECT_EQ(CallsUntilNow(), "SetProperty wwan0 Nameservers.Configuration=none");
    link.SetDnsConfiguration("wwan0", {});
    EXPECT_EQ(CallsUntilNow(), "SetProperty wwan0 Nameservers.Configuration=");
}

TEST_F(AConnectedGateway, RefusesANameServerThatIsNoAddress) {
    EXPECT_FALSE(link.SetDnsConfiguration("wwan0", {"dns.example"}));
    EXPECT_FALSE(link.SetDnsConfiguration("wwan0", {"dns.example"}));
    EXPECT_TRUE(IsLogged("\"dns.example\" is no IP address"));
    EXPECT_EQ(CallsUntilNow(), "");
    EXPECT_EQ(Logged("is no IP address"), 1U);
}

TEST_F(AConnectedGateway, CarriesOutAnOrderWhenTheConnectionManagerReturns) {
    connman.reset();
    ASSERT_TRUE(BecomesTop(""));
    EXPECT_FALSE(link.SetTopPriorityInterface("wwan0"));
    EXPECT_FALSE(link.SetDnsConfiguration("wwan0", {"0.0.0.0"}));
    connman.emplace(bus, "eth0:online wwan0:ready");
    EXPECT_TRUE(BecomesTop("wwan0"));
    EXPECT_TRUE(IsLogged("name servers of wwan0: none"));
    EXPECT_EQ(Logged("net.connman is not on the message bus"), 1U);
    EXPECT_EQ(Logged("connection manager found: eth0 online, wwan0 ready"), 2U);
}

TEST_F(AConnectedGateway, NamesAServiceWithoutAnInterfaceByItsPath) {
    connman.reset();
    ASSERT_TRUE(BecomesTop(""));
    connman.emplace(bus, "eth0:online modem:idle:unbound");
    EXPECT_TRUE(IsLogged("connection manager found: eth0 online, modem (no interface) idle"));
}

TEST_F(AConnectedGateway, KeepsAnOrderThatTheConnectionManagerDiedOver) {
    connman->Freeze();
    link.SetTopPriorityInterface("wwan0");
    ASSERT_TRUE(IsLogged("has not answered"));
    connman.reset();
    ASSERT_TRUE(BecomesTop(""));
    connman.emplace(bus, "eth0:online wwan0:ready");
    EXPECT_TRUE(BecomesTop("wwan0"));
    EXPECT_EQ(Logged("cannot put"), 0U);
}

TEST_F(AConnectedGateway, FindsTheBusAgainAfterItsRestart) {
    bus.Stop();
    ASSERT_TRUE(BecomesTop(""));
    connman.reset();
    link.SetTopPriorityInterface("wwan0");
    bus.Start();
    connman.emplace(bus, "eth0:online wwan0:ready");
    EXPECT_TRUE(BecomesTop("wwan0"));
    EXPECT_EQ(Logged("is not reachable"), 1U);
}

TEST_F(AGateway, AsksAgainWhenTheServicesCannotBeListed) {
    link.TopPriorityInterface();
    const FakeConnmanProcess connman(bus, "eth0:online", "refuse GetServices net.connman.Error.Failed");
    EXPECT_TRUE(IsLogged("does not list its services: net.connman.Error.Failed"));
    connman.Do("refuse -");
    EXPECT_TRUE(BecomesTop("eth0"));
    EXPECT_EQ(Logged("does not list"), 1U);
}

TEST_F(AConnectedGateway, StopsAnsweringOnceItHasStopped) {
    link.Stop();
    EXPECT_EQ(link.TopPriorityInterface(), "");
    EXPECT_FALSE(link.SetTopPriorityInterface("wwan0"));
    EXPECT_EQ(connman->Calls(), "");
}

TEST_F(AConnectedGateway, ServesManyThreads) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, i] {
            for (int round = 0; round < 200; ++round) {
                link.SetTopPriorityInterface((round + i) % 2 == 0 ? "eth0" : "wwan0");
                link.SetDnsConfiguration("wwan0", {"198.51.100." + std::to_string(round)});
                link.TopPriorityInterface();
            }
        });
    }
    connman->Do("services wwan0:ready eth0:online");
    for (std::thread& thread : threads)
        thread.join();
    link.SetTopPriorityInterface("wwan0");
    EXPECT_TRUE(BecomesTop("wwan0"));
}

TEST_F(AConnectedGateway, GivesBackTheNameServersThatAnEarlierProcessTookAway) {
    connman->Do("mute-servers wwan0");
    ConnmanClient later(bus.Address(), FAST);
    later.TopPriorityInterface();
    EXPECT_TRUE(IsLogged("name servers of wwan0: as the network offers"));
    EXPECT_EQ(connman->Calls(), "SetProperty wwan0 Nameservers.Configuration=");
}

TEST_F(AGateway, AcceptsAnOrderBeforeItKnowsTheConnectionManager) {
    EXPECT_TRUE(link.SetTopPriorityInterface("wwan0"));
    ASSERT_TRUE(IsLogged("net.connman is not on the message bus"));
    EXPECT_FALSE(link.SetTopPriorityInterface("wwan0"));
    const FakeConnmanProcess connman(bus, "eth0:ready wwan0:ready");
    EXPECT_TRUE(BecomesTop("wwan0"));
}

TEST_F(AGateway, SaysThatTheBusIsFrozenFromTheStart) {
    bus.Freeze();
    EXPECT_TRUE(link.SetTopPriorityInterface("wwan0"));
    EXPECT_TRUE(IsLogged("no answer within 300 ms"));
    EXPECT_FALSE(link.SetTopPriorityInterface("wwan0"));
}

TEST_F(AGateway, SaysOnceThatThereIsNoBus) {
    bus.Stop();
    const int refused = bus.RefuseConnections(3, [this] { link.TopPriorityInterface(); });
    EXPECT_EQ(refused, 3);
    ASSERT_TRUE(IsLogged("is not reachable"));
    bus.Start();
    const FakeConnmanProcess connman(bus, "eth0:ready");
    EXPECT_TRUE(BecomesTop("eth0"));
    EXPECT_EQ(Logged("is not reachable"), 1U);
}

TEST_F(AGateway, StartsNoThreadBeforeItIsAsked) {
    const std::size_t threads = ProcessFigures::Now().threads;
    ConnmanClient other(bus.Address(), FAST);
    EXPECT_LE(ProcessFigures::Now().threads, threads); // one that was joined before may be seen a moment longer
    other.Stop();
    link.Stop();
    EXPECT_LE(ProcessFigures::Now().threads, threads);
    EXPECT_EQ(Logged("message bus"), 0U);
}

TEST_F(AConnectedGateway, TakesOrdersOnceThereIsADescriptorForItsThread) {
    std::optional<ConnmanClient> poor;
    {
        const NoMoreDescriptors exhausted;
        poor.emplace(bus.Address(), FAST);
        EXPECT_FALSE(poor->SetTopPriorityInterface("wwan0"));
    }
    EXPECT_TRUE(WaitUntil([&] { return poor->TopPriorityInterface() == "eth0"; }));
    EXPECT_TRUE(poor->SetTopPriorityInterface("wwan0"));
    EXPECT_TRUE(WaitUntil([&] { return poor->TopPriorityInterface() == "wwan0"; }));
}

TEST(TheBusAddress, IsTheConfiguredOneFirst) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/named", 1); // NOLINT(concurrency-mt-unsafe): no other thread yet
    EXPECT_EQ(OrvPlatform::MessageBus::Address("unix:path=/configured"), "unix:path=/configured");
    EXPECT_EQ(OrvPlatform::MessageBus::Address(""), "unix:path=/named");
    unsetenv("DBUS_SYSTEM_BUS_ADDRESS"); // NOLINT(concurrency-mt-unsafe)
    EXPECT_EQ(OrvPlatform::MessageBus::Address(""), "unix:path=/run/dbus/system_bus_socket");
}

} // namespace
} // namespace OrvTest
