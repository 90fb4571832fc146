// SPDX-License-Identifier: Apache-2.0
#include "Planner.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

namespace OrvSourceRoutes {
namespace {

using OrvNetlink::Address;
using OrvNetlink::IpAddress;
using OrvNetlink::Link;
using OrvNetlink::Route;
using OrvNetlink::Rule;

constexpr std::uint8_t SOMEBODY_ELSE = RTPROT_BOOT;
constexpr unsigned ETH = 2;
constexpr unsigned CELL = 3;

IpAddress Ip(const char* text) {
    return *IpAddress::Parse(text);
}

/// What ConnMan leaves in the kernel with Ethernet as default service and Cellular beside it.
class AGateway : public testing::Test {
protected:
    AGateway() {
        now.links = {{1, "lo", true, false}, {ETH, "eth0", true, false}, {CELL, "wwan0", true, false}};
        now.addresses = {{1, Ip("127.0.0.1"), 8, false, false},
                         {ETH, Ip("10.11.0.179"), 24, false, true},
                         {CELL, Ip("10.12.0.50"), 24, false, true}};
        Main(ETH, "0.0.0.0", 0, "10.11.0.1");
        Main(ETH, "10.11.0.0", 24, "0.0.0.0");
        Main(ETH, "10.11.0.1", 32, "0.0.0.0");
        Main(CELL, "10.12.0.0", 24, "0.0.0.0");
        Main(CELL, "10.12.0.1", 32, "0.0.0.0");
        Main(ETH, "10.21.0.53", 32, "10.11.0.1");
        Main(CELL, "10.22.0.53", 32, "10.12.0.1");
    }

    void Main(unsigned link, const char* destination, unsigned length, const char* gateway) {
        now.routes.push_back(
            {RT_TABLE_MAIN, SOMEBODY_ELSE, link, Ip(destination), length, Ip(gateway), IpAddress{}, 0});
    }
    void RemoveRoutesOf(unsigned link) {
        std::vector<Route> kept;
        for (const Route& route : now.routes) {
            if (route.link != link)
                kept.push_back(route);
        }
        now.routes = kept;
    }
    void LoseAddressOf(unsigned link) {
        std::vector<Address> kept;
        for (const Address& address : now.addresses) {
            if (address.link != link)
                kept.push_back(address);
        }
        now.addresses = kept;
    }

    Plan Decide() { return planner.Decide(now); }

    /// The router that the plan gives bound connections of the table; 0.0.0.0 without one.
    static IpAddress RouterIn(const Plan& plan, std::uint32_t table) {
        for (const Route& route : plan.routes) {
            if (route.table == table && route.IsDefault())
                return route.gateway;
        }
        return IpAddress{};
    }

    /// Puts the changes into the snapshot, as the kernel would.
    void Apply(const Changes& changes) {
        for (const Route& gone : changes.routesToRemove)
            now.routes.erase(std::find(now.routes.begin(), now.routes.end(), gone));
        for (const Rule& gone : changes.rulesToRemove)
            now.rules.erase(std::find(now.rules.begin(), now.rules.end(), gone));
        for (const Changes::Addition& added : changes.routesToAdd)
            now.routes.push_back(added.route);
        for (const Rule& added : changes.rulesToAdd)
            now.rules.push_back(added);
    }

    Snapshot now;
    Planner planner{{{"eth0", 1011}, {"wwan0", 1012}}};
};

TEST_F(AGateway, GivesEachInterfaceItsRulesItsNetworkAndADefaultRoute) {
    const Plan plan = Decide();
    const std::vector<Route> routes = {
        {1011, OWN_PROTOCOL, ETH, Ip("10.11.0.0"), 24, IpAddress{}, Ip("10.11.0.179"), 0},
        {1011, OWN_PROTOCOL, ETH, IpAddress{}, 0, Ip("10.11.0.1"), Ip("10.11.0.179"), 0},
        {1012, OWN_PROTOCOL, CELL, Ip("10.12.0.0"), 24, IpAddress{}, Ip("10.12.0.50"), 0},
        {1012, OWN_PROTOCOL, CELL, IpAddress{}, 0, Ip("10.12.0.1"), Ip("10.12.0.50"), 0}};
    const std::vector<Rule> rules = {{1011, 1011, OWN_PROTOCOL, "eth0", IpAddress{}},
                                     {BEHIND_MAIN, 1011, OWN_PROTOCOL, "", Ip("10.11.0.179"), 32},
                                     {1012, 1012, OWN_PROTOCOL, "wwan0", IpAddress{}},
                                     {BEHIND_MAIN, 1012, OWN_PROTOCOL, "", Ip("10.12.0.50"), 32}};
    EXPECT_EQ(plan.routes, routes);
    EXPECT_EQ(plan.rules, rules);
    EXPECT_EQ(plan.reasons.at("eth0"), "bound connections go via 10.11.0.1 from 10.11.0.179 (table 1011)");
}

TEST_F(AGateway, LearnsTheRouterFromNameServerRoutesAlone) {
    RemoveRoutesOf(CELL);
    Main(CELL, "10.22.0.53", 32, "10.12.0.1");
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.1"));
}

TEST_F(AGateway, LearnsTheRouterFromItsHostRouteAlone) {
    RemoveRoutesOf(CELL);
    Main(CELL, "10.12.0.1", 32, "0.0.0.0");
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.1"));
}

TEST_F(AGateway, PrefersTheDefaultRoutesRouterToTheNameServers) {
    Main(ETH, "10.21.0.54", 32, "10.11.0.9");
    EXPECT_EQ(RouterIn(Decide(), 1011), Ip("10.11.0.1"));
}

TEST_F(AGateway, TakesNoRouterOfOtherNetworksForItsOwnOnceItHasLostTheDefault) {
    Decide();
    RemoveRoutesOf(ETH);
    Main(ETH, "10.11.0.0", 24, "0.0.0.0");
    Main(ETH, "192.168.50.0", 24, "10.11.0.77");
    EXPECT_EQ(RouterIn(Decide(), 1011), Ip("10.11.0.1"));
    Main(ETH, "10.11.0.1", 32, "0.0.0.0");
    EXPECT_EQ(RouterIn(Decide(), 1011), Ip("10.11.0.1"));
    Planner restarted({{"eth0", 1011}, {"wwan0", 1012}});
    EXPECT_EQ(RouterIn(restarted.Decide(now), 1011), Ip("10.11.0.1"));
}

TEST_F(AGateway, TakesTheRouterThatHasAHostRouteAmongThoseThatLeadSomewhere) {
    RemoveRoutesOf(CELL);
    for (const char* neighbour : {"10.12.0.1", "10.12.0.7"})
        Main(CELL, neighbour, 32, "0.0.0.0");
    Main(CELL, "192.168.50.0", 24, "10.12.0.77");
    Main(CELL, "10.22.0.53", 32, "10.12.0.1");
    Main(CELL, "192.168.51.0", 24, "10.12.0.78");
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.1"));
}

TEST_F(AGateway, PrefersTheRouterOfNameServersToOneOfNetworks) {
    RemoveRoutesOf(CELL);
    Main(CELL, "10.22.0.53", 32, "10.12.0.1");
    Main(CELL, "192.168.50.0", 24, "10.12.0.77");
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.1"));
}

TEST_F(AGateway, DoesNotGuessAmongSeveralRouters) {
    RemoveRoutesOf(CELL);
    Main(CELL, "192.168.51.0", 24, "10.12.0.78");
    Main(CELL, "192.168.50.0", 24, "10.12.0.77");
    EXPECT_EQ(Decide().reasons.at("wwan0"), "no route for bound connections: its router is not known yet");
}

TEST_F(AGateway, FollowsARouterThatChangesWithoutTheDefault) {
    Decide();
    RemoveRoutesOf(CELL);
    Main(CELL, "10.12.0.2", 32, "0.0.0.0");
    Main(CELL, "10.22.0.53", 32, "10.12.0.2");
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.2"));
}

TEST_F(AGateway, ReplacesAGuessByTheNextOne) {
    RemoveRoutesOf(CELL);
    Main(CELL, "192.168.50.0", 24, "10.12.0.77");
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.77"));
    RemoveRoutesOf(CELL);
    Main(CELL, "10.22.0.53", 32, "10.12.0.1");
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.1"));
}

TEST_F(AGateway, DoesNotGuessAmongSeveralHostsOfItsNetwork) {
    RemoveRoutesOf(CELL);
    Main(CELL, "10.12.0.1", 32, "0.0.0.0");
    Main(CELL, "10.12.0.7", 32, "0.0.0.0");
    EXPECT_EQ(Decide().reasons.at("wwan0"), "no route for bound connections: its router is not known yet");
}

TEST_F(AGateway, DoesNotTakeAHostOfAnotherNetworkForTheRouter) {
    RemoveRoutesOf(CELL);
    Main(CELL, "192.0.2.1", 32, "0.0.0.0");
    EXPECT_FALSE(RouterIn(Decide(), 1012));
}

TEST_F(AGateway, LooksAtTheMainTableOnly) {
    RemoveRoutesOf(CELL);
    now.routes.push_back({77, SOMEBODY_ELSE, CELL, IpAddress{}, 0, Ip("10.12.0.9"), IpAddress{}, 0});
    EXPECT_FALSE(RouterIn(Decide(), 1012));
}

TEST_F(AGateway, RemembersTheRouterWhileTheAddressStays) {
    Decide();
    RemoveRoutesOf(CELL);
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.1"));
}

TEST_F(AGateway, RemembersTheRouterWhileTheLinkIsDown) {
    Decide();
    RemoveRoutesOf(CELL);
    now.links[2].running = false;
    EXPECT_EQ(Decide().reasons.at("wwan0"), "no route for bound connections: the link is down");
    now.links[2].running = true;
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.1"));
}

TEST_F(AGateway, ForgetsTheRouterWithTheAddress) {
    Decide();
    RemoveRoutesOf(CELL);
    const std::vector<Address> before = now.addresses;
    LoseAddressOf(CELL);
    EXPECT_EQ(Decide().reasons.at("wwan0"), "no route for bound connections: the interface has no IPv4 address");
    now.addresses = before;
    EXPECT_FALSE(RouterIn(Decide(), 1012));
}

TEST_F(AGateway, ForgetsTheRouterWithAnotherAddress) {
    Decide();
    RemoveRoutesOf(CELL);
    now.addresses[2].address = Ip("10.99.0.50");
    EXPECT_FALSE(RouterIn(Decide(), 1012));
}

TEST_F(AGateway, FollowsTheRouterThatTheMainTableShows) {
    Decide();
    RemoveRoutesOf(CELL);
    Main(CELL, "0.0.0.0", 0, "10.12.0.2");
    EXPECT_EQ(RouterIn(Decide(), 1012), Ip("10.12.0.2"));
}

TEST_F(AGateway, TakesARouterFromItsOwnEntriesAfterACrash) {
    const Plan before = Decide();
    RemoveRoutesOf(CELL);
    now.routes.insert(now.routes.end(), before.routes.begin(), before.routes.end());
    Planner restarted({{"eth0", 1011}, {"wwan0", 1012}});
    EXPECT_EQ(RouterIn(restarted.Decide(now), 1012), Ip("10.12.0.1"));
}

TEST_F(AGateway, NeedsNoRouterOnAPointToPointLink) {
    RemoveRoutesOf(CELL);
    now.links[2].pointToPoint = true;
    now.addresses[2].prefixLength = 32;
    const Plan plan = Decide();
    const Route direct{1012, OWN_PROTOCOL, CELL, IpAddress{}, 0, IpAddress{}, Ip("10.12.0.50"), 0};
    EXPECT_EQ(plan.routes.back(), direct);
    EXPECT_EQ(plan.reasons.at("wwan0"), "bound connections go over the link from 10.12.0.50 (table 1012)");
}

TEST_F(AGateway, IgnoresLinkLocalAndSecondaryAddresses) {
    now.addresses[2].global = false;
    now.addresses.push_back({CELL, Ip("10.12.0.51"), 24, true, true});
    EXPECT_EQ(Decide().reasons.at("wwan0"), "no route for bound connections: the interface has no IPv4 address");
}

TEST_F(AGateway, DoesWithoutAnInterfaceThatDoesNotExist) {
    now.links.pop_back();
    const Plan plan = Decide();
    EXPECT_EQ(plan.rules.size(), 2U);
    EXPECT_EQ(plan.reasons.at("wwan0"), "no route for bound connections: the interface does not exist");
}

TEST_F(AGateway, ChangesNothingOnceAllStands) {
    Apply(Difference(now, Decide()));
    const Changes again = Difference(now, Decide());
    EXPECT_TRUE(again.routesToAdd.empty() && again.routesToRemove.empty());
    EXPECT_TRUE(again.rulesToAdd.empty() && again.rulesToRemove.empty());
}

TEST_F(AGateway, RemovesTheRulesAndTheRoutesWithTheAddress) {
    Apply(Difference(now, Decide()));
    LoseAddressOf(CELL);
    const Changes changes = Difference(now, Decide());
    const std::vector<Rule> rules = {{1012, 1012, OWN_PROTOCOL, "wwan0", IpAddress{}},
                                     {BEHIND_MAIN, 1012, OWN_PROTOCOL, "", Ip("10.12.0.50"), 32}};
    EXPECT_EQ(changes.rulesToRemove, rules);
    EXPECT_EQ(changes.routesToRemove.size(), 2U);
    EXPECT_TRUE(changes.routesToAdd.empty());
}

TEST_F(AGateway, ExchangesTheRuleForTheAddressWithTheAddress) {
    Apply(Difference(now, Decide()));
    now.addresses[2].address = Ip("10.12.0.51");
    const Changes changes = Difference(now, Decide());
    EXPECT_EQ(changes.rulesToRemove, (std::vector<Rule>{{BEHIND_MAIN, 1012, OWN_PROTOCOL, "", Ip("10.12.0.50"), 32}}));
    EXPECT_EQ(changes.rulesToAdd, (std::vector<Rule>{{BEHIND_MAIN, 1012, OWN_PROTOCOL, "", Ip("10.12.0.51"), 32}}));
}

TEST_F(AGateway, ReplacesTheRouterInOneStep) {
    Apply(Difference(now, Decide()));
    now.routes[0].gateway = Ip("10.11.0.2");
    const Changes changes = Difference(now, Decide());
    ASSERT_EQ(changes.routesToAdd.size(), 1U);
    EXPECT_TRUE(changes.routesToAdd[0].replaces);
    EXPECT_EQ(changes.routesToAdd[0].route.gateway, Ip("10.11.0.2"));
    EXPECT_TRUE(changes.routesToRemove.empty());
}

TEST_F(AGateway, RemovesWhatItLeftInAnotherTable) {
    now.rules = {{900, 900, OWN_PROTOCOL, "eth0", IpAddress{}}};
    now.routes.push_back({900, OWN_PROTOCOL, ETH, IpAddress{}, 0, Ip("10.11.0.1"), Ip("10.11.0.179"), 0});
    const Changes changes = Difference(now, Decide());
    EXPECT_EQ(changes.rulesToRemove.size(), 1U);
    EXPECT_EQ(changes.routesToRemove.size(), 1U);
}

TEST_F(AGateway, LeavesTheEntriesOfOthersAlone) {
    now.rules = {{5, 1011, SOMEBODY_ELSE, "eth0", IpAddress{}},
                 {32768, 1011, SOMEBODY_ELSE, "", Ip("10.11.0.179"), 32}};
    now.routes.push_back({1011, SOMEBODY_ELSE, ETH, IpAddress{}, 0, Ip("10.11.0.9"), IpAddress{}, 50});
    const Changes changes = Difference(now, Plan{});
    EXPECT_TRUE(changes.rulesToRemove.empty() && changes.routesToRemove.empty());
}

} // namespace
} // namespace OrvSourceRoutes
