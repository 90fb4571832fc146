// SPDX-License-Identifier: Apache-2.0
#include "Planner.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <chrono>

namespace OrvSourceRoutes {
namespace {

using namespace std::chrono_literals;
using OrvNetlink::Address;
using OrvNetlink::IpAddress;
using OrvNetlink::Link;
using OrvNetlink::Route;
using OrvNetlink::Rule;

constexpr unsigned ETH = 2;
constexpr unsigned CELL = 3;
constexpr std::uint32_t RA_METRIC = 1024;

IpAddress Ip(const char* text) {
    return *IpAddress::Parse(text);
}

Route Own(std::uint32_t table, unsigned link, const char* destination, unsigned length, const char* gateway = "::") {
    return {table, OWN_PROTOCOL, link, Ip(destination), length, Ip(gateway), {}, IPV6_METRIC, AF_INET6};
}

/// Two providers with IPv6 alone, as the kernel makes it of their routers' advertisements; ConnMan's default is
/// Ethernet.
class AGatewayWithIpv6 : public testing::Test {
protected:
    AGatewayWithIpv6() {
        now.links = {{1, "lo", true, false}, {ETH, "eth0", true, false}, {CELL, "wwan0", true, false}};
        now.connman.defaultInterface = "eth0";
        for (const unsigned link : {ETH, CELL}) {
            Has(link, "fe80::a", 64, false);
            Kernel(link, "fe80::", 64);
        }
        Has(ETH, "2001:db8:11::a", 64);
        Has(CELL, "2001:db8:12::a", 64);
        Kernel(ETH, "2001:db8:11::", 64);
        Kernel(CELL, "2001:db8:12::", 64);
        Advertised(ETH, "fe80::1");
        Advertised(CELL, "fe80::2");
    }

    Address& Has(unsigned link, const char* address, unsigned length, bool global = true) {
        now.addresses.push_back({link, Ip(address), length, false, global});
        return now.addresses.back();
    }
    void Kernel(unsigned link, const char* destination, unsigned length) {
        now.routes.push_back({RT_TABLE_MAIN, RTPROT_KERNEL, link, Ip(destination), length, {}, {}, 256, AF_INET6});
    }
    Route& Advertised(unsigned link, const char* router) {
        now.routes.push_back({RT_TABLE_MAIN, RTPROT_RA, link, {}, 0, Ip(router), {}, RA_METRIC, AF_INET6});
        now.routes.back().lifetime = 600s;
        return now.routes.back();
    }
    Route& RouteOf(unsigned link) {
        return *std::find_if(now.routes.begin(), now.routes.end(),
                             [&](const Route& route) { return route.link == link && route.protocol == RTPROT_RA; });
    }
    void LoseRouterOf(unsigned link) { now.routes.erase(now.routes.begin() + (&RouteOf(link) - now.routes.data())); }
    void LoseAddressesOf(unsigned link) {
        const auto own = [&](const Address& address) { return address.link == link && address.global; };
        now.addresses.erase(std::remove_if(now.addresses.begin(), now.addresses.end(), own), now.addresses.end());
    }

    Plan Decide() { return planner.Decide(now); }
    /// The router that the plan gives in the table; none without one.
    IpAddress RouterIn(std::uint32_t table) {
        for (const Route& route : Decide().routes) {
            if (route.table == table && route.IsDefault())
                return route.gateway;
        }
        return IpAddress{};
    }
    bool Plans(const Route& wanted) {
        const Plan plan = Decide();
        return std::find(plan.routes.begin(), plan.routes.end(), wanted) != plan.routes.end();
    }
    std::vector<Route> InMain() {
        std::vector<Route> found;
        for (const Route& route : Decide().routes) {
            if (route.table == RT_TABLE_MAIN)
                found.push_back(route);
        }
        return found;
    }
    void Carry(const Changes& changes) {
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

TEST_F(AGatewayWithIpv6, GivesEachInterfaceItsRulesItsNetworksAndADefaultRoute) {
    const Plan plan = Decide();
    const std::vector<Route> routes = {
        Own(1011, ETH, "fe80::", 64),
        Own(1011, ETH, "2001:db8:11::", 64),
        Own(1011, ETH, "::", 0, "fe80::1"),
        Own(1012, CELL, "fe80::", 64),
        Own(1012, CELL, "2001:db8:12::", 64),
        Own(1012, CELL, "::", 0, "fe80::2"),
        Own(RT_TABLE_MAIN, ETH, "::", 0, "fe80::1"),
    };
    const std::vector<Rule> rules = {{1011, 1011, OWN_PROTOCOL, "eth0", {}, 0, AF_INET6},
                                     {1011, 1011, OWN_PROTOCOL, "", Ip("2001:db8:11::"), 64, AF_INET6},
                                     {1012, 1012, OWN_PROTOCOL, "wwan0", {}, 0, AF_INET6},
                                     {1012, 1012, OWN_PROTOCOL, "", Ip("2001:db8:12::"), 64, AF_INET6}};
    EXPECT_EQ(plan.routes, routes);
    EXPECT_EQ(plan.rules, rules);
    EXPECT_EQ(plan.reasons.at("eth0, IPv6"), "bound connections go via fe80::1 from 2001:db8:11::/64 (table 1011)");
}

TEST_F(AGatewayWithIpv6, ChangesNothingOnceAllStands) {
    Carry(Difference(now, Decide()));
    const Changes again = Difference(now, Decide());
    EXPECT_TRUE(again.routesToAdd.empty() && again.routesToRemove.empty());
    EXPECT_TRUE(again.rulesToAdd.empty() && again.rulesToRemove.empty());
}

TEST_F(AGatewayWithIpv6, MovesTheDefaultWithTheConnectionManager) {
    Carry(Difference(now, Decide()));
    now.connman.defaultInterface = "wwan0";
    EXPECT_EQ(InMain(), std::vector<Route>{Own(RT_TABLE_MAIN, CELL, "::", 0, "fe80::2")});
    const Changes changes = Difference(now, Decide());
    ASSERT_EQ(changes.routesToAdd.size(), 1U);
    EXPECT_TRUE(changes.routesToAdd.front().replaces);
    EXPECT_TRUE(changes.routesToRemove.empty());
}

TEST_F(AGatewayWithIpv6, FollowsTheIpv4DefaultWhereNoConnectionManagerTells) {
    now.connman.defaultInterface.clear();
    EXPECT_TRUE(InMain().empty());
    now.routes.push_back({RT_TABLE_MAIN, RTPROT_BOOT, CELL, {}, 0, Ip("10.12.0.1"), {}, 0});
    EXPECT_EQ(InMain(), std::vector<Route>{Own(RT_TABLE_MAIN, CELL, "::", 0, "fe80::2")});
}

TEST_F(AGatewayWithIpv6, SaysThatThereIsNoWayWhenTheDefaultInterfaceHasNoIpv6) {
    LoseRouterOf(ETH);
    EXPECT_EQ(InMain(), std::vector<Route>{Own(RT_TABLE_MAIN, 0, "::", 0)});
    EXPECT_EQ(RouterIn(1012), Ip("fe80::2"));
    EXPECT_EQ(Decide().reasons.at("eth0, IPv6"), "no route for bound connections: no router is advertised");
}

TEST_F(AGatewayWithIpv6, LeavesTheDefaultAloneWhenNobodyHasIpv6) {
    LoseRouterOf(ETH);
    LoseRouterOf(CELL);
    EXPECT_TRUE(Decide().routes.empty());
    EXPECT_TRUE(Decide().rules.empty());
}

TEST_F(AGatewayWithIpv6, LeavesTheDefaultAloneWhenSomeOtherInterfaceHasIt) {
    now.connman.defaultInterface = "vpn0";
    EXPECT_TRUE(InMain().empty());
}

TEST_F(AGatewayWithIpv6, AsksTheNameServersOfTheOtherProviderOverItsOwnInterface) {
    now.connman.nameServers = {{"eth0", {"2001:db8:21::53"}}, {"wwan0", {"2001:db8:22::53", "2001:db8:22::53"}}};
    const Route toCellulars = Own(RT_TABLE_MAIN, CELL, "2001:db8:22::53", 128, "fe80::2");
    EXPECT_EQ(InMain(), (std::vector<Route>{Own(RT_TABLE_MAIN, ETH, "::", 0, "fe80::1"), toCellulars}));
    now.connman.defaultInterface = "wwan0";
    EXPECT_TRUE(Plans(Own(RT_TABLE_MAIN, ETH, "2001:db8:21::53", 128, "fe80::1")));
    EXPECT_FALSE(Plans(toCellulars)) << "the default route leads there";
}

TEST_F(AGatewayWithIpv6, AsksTheOtherProvidersNameServersAlsoWhenTheDefaultInterfaceHasNoIpv6) {
    LoseRouterOf(ETH);
    now.connman.nameServers = {{"wwan0", {"2001:db8:22::53"}}};
    EXPECT_TRUE(Plans(Own(RT_TABLE_MAIN, CELL, "2001:db8:22::53", 128, "fe80::2")));
    LoseRouterOf(CELL);
    EXPECT_TRUE(InMain().empty());
}

TEST_F(AGatewayWithIpv6, LeavesANameServerAloneThatBothHaveOrThatNeedsNoRouter) {
    now.connman.nameServers = {
        {"eth0", {"2001:db8:5::53"}},
        {"wwan0", {"2001:db8:5::53", "2001:db8:12::53", "fe80::53", "10.22.0.53", "none"}},
    };
    EXPECT_EQ(InMain(), std::vector<Route>{Own(RT_TABLE_MAIN, ETH, "::", 0, "fe80::1")});
}

TEST_F(AGatewayWithIpv6, AsksANameServerThatBothHaveOverTheOtherInterfaceWhenTheDefaultHasNoRouter) {
    now.connman.nameServers = {{"eth0", {"2001:db8:5::53"}}, {"wwan0", {"2001:db8:5::53"}}};
    LoseRouterOf(ETH);
    EXPECT_TRUE(Plans(Own(RT_TABLE_MAIN, CELL, "2001:db8:5::53", 128, "fe80::2")));
}

TEST_F(AGatewayWithIpv6, TakesTheRouterAwayWhenItsLifetimeIsOver) {
    RouteOf(ETH).lifetime = -1s;
    EXPECT_FALSE(RouterIn(1011));
    EXPECT_EQ(InMain(), std::vector<Route>{Own(RT_TABLE_MAIN, 0, "::", 0)});
}

TEST_F(AGatewayWithIpv6, IsLookedAtAgainWhenTheFirstLifetimeIsOver) {
    RouteOf(CELL).lifetime = 90s;
    EXPECT_GT(planner.NextExpiry(now), 90s);
    EXPECT_LT(planner.NextExpiry(now), 91s);
    RouteOf(CELL).lifetime = -1s;
    EXPECT_GT(planner.NextExpiry(now), 600s);
    RouteOf(ETH).lifetime.reset();
    EXPECT_FALSE(planner.NextExpiry(now));
}

TEST_F(AGatewayWithIpv6, IsLookedAtAgainWithinTheHour) {
    RouteOf(ETH).lifetime = RouteOf(CELL).lifetime = 100 * 24h;
    EXPECT_EQ(planner.NextExpiry(now), 1h);
}

TEST_F(AGatewayWithIpv6, IsNotLookedAtForTheSakeOfOtherInterfacesRouters) {
    now.links.push_back({9, "lan0", true, false});
    Advertised(9, "fe80::5").lifetime = 3s;
    EXPECT_GT(planner.NextExpiry(now), 600s);
}

TEST_F(AGatewayWithIpv6, TakesTheRouterOfHigherPreference) {
    Advertised(ETH, "fe80::9").preference = 1;
    EXPECT_EQ(RouterIn(1011), Ip("fe80::9"));
}

TEST_F(AGatewayWithIpv6, TakesARouterThatSomebodyHasSetForABetterOne) {
    now.routes.push_back({RT_TABLE_MAIN, RTPROT_STATIC, ETH, {}, 0, Ip("fe80::7"), {}, 50, AF_INET6});
    EXPECT_EQ(RouterIn(1011), Ip("fe80::7"));
}

TEST_F(AGatewayWithIpv6, StaysWithTheRouterAmongEquals) {
    Carry(Difference(now, Decide()));
    const Route present = RouteOf(ETH);
    LoseRouterOf(ETH);
    Advertised(ETH, "fe80::9");
    now.routes.push_back(present);
    EXPECT_EQ(RouterIn(1011), Ip("fe80::1"));
}

TEST_F(AGatewayWithIpv6, DoesNotTakeItsOwnRouteForARouter) {
    Carry(Difference(now, Decide()));
    LoseRouterOf(ETH);
    EXPECT_FALSE(RouterIn(1011));
}

TEST_F(AGatewayWithIpv6, FollowsANewPrefix) {
    Carry(Difference(now, Decide()));
    Has(ETH, "2001:db8:99::a", 64);
    const Changes added = Difference(now, Decide());
    EXPECT_EQ(added.rulesToAdd, (std::vector<Rule>{{1011, 1011, OWN_PROTOCOL, "", Ip("2001:db8:99::"), 64, AF_INET6}}));
    EXPECT_TRUE(added.rulesToRemove.empty());
    LoseAddressesOf(ETH);
    Has(ETH, "2001:db8:99::a", 64);
    EXPECT_EQ(Difference(now, Decide()).rulesToRemove,
              (std::vector<Rule>{{1011, 1011, OWN_PROTOCOL, "", Ip("2001:db8:11::"), 64, AF_INET6}}));
}

TEST_F(AGatewayWithIpv6, HasOneRuleForSeveralAddressesOfAPrefixAndOneForASingleAddress) {
    Has(ETH, "2001:db8:11::77", 64).temporary = true;
    Has(ETH, "2001:db8:11::d", 128);
    const Plan plan = Decide();
    EXPECT_EQ(plan.rules.size(), 5U);
    EXPECT_EQ(plan.rules.at(2), (Rule{1011, 1011, OWN_PROTOCOL, "", Ip("2001:db8:11::d"), 128, AF_INET6}));
}

TEST_F(AGatewayWithIpv6, HasNoWayWithoutAnAddressThatIsReadyAndItsOwn) {
    LoseAddressesOf(ETH);
    Has(ETH, "2001:db8:11::a", 64).tentative = true;
    EXPECT_FALSE(RouterIn(1011));
    now.addresses.back().tentative = false;
    now.addresses.back().duplicate = true;
    EXPECT_FALSE(RouterIn(1011));
    now.addresses.back().duplicate = false;
    now.addresses.back().deprecated = true;
    EXPECT_EQ(RouterIn(1011), Ip("fe80::1"));
}

TEST_F(AGatewayWithIpv6, SaysWhenAnInterfaceThatHadItHasItNoMore) {
    Decide();
    LoseAddressesOf(CELL);
    EXPECT_EQ(Decide().reasons.at("wwan0, IPv6"), "no route for bound connections: the interface has no IPv6 address");
    now.links[2].running = false;
    Has(CELL, "2001:db8:12::a", 64);
    EXPECT_EQ(Decide().reasons.at("wwan0, IPv6"), "no route for bound connections: the link is down");
    now.links.pop_back();
    EXPECT_EQ(Decide().reasons.at("wwan0, IPv6"), "no route for bound connections: the interface does not exist");
}

TEST_F(AGatewayWithIpv6, NeedsNoRouterOnAPointToPointLink) {
    now.links[2].pointToPoint = true;
    LoseRouterOf(CELL);
    now.routes.push_back({RT_TABLE_MAIN, RTPROT_RA, CELL, {}, 0, {}, {}, RA_METRIC, AF_INET6});
    EXPECT_TRUE(Plans(Own(1012, CELL, "::", 0)));
    now.links[2].pointToPoint = false;
    EXPECT_FALSE(Plans(Own(1012, CELL, "::", 0)));
}

TEST_F(AGatewayWithIpv6, KeepsTheFamiliesApart) {
    Has(ETH, "10.11.0.179", 24);
    now.routes.push_back({RT_TABLE_MAIN, RTPROT_BOOT, ETH, {}, 0, Ip("10.11.0.1"), {}, 0});
    EXPECT_TRUE(Plans({1011, OWN_PROTOCOL, ETH, {}, 0, Ip("10.11.0.1"), Ip("10.11.0.179"), 0}));
    EXPECT_TRUE(Plans(Own(1011, ETH, "::", 0, "fe80::1")));
    Carry(Difference(now, Decide()));
    EXPECT_TRUE(Difference(now, Decide()).routesToAdd.empty());
}

TEST(AGatewayWithoutIpv6, SaysNothingOfIt) {
    Planner planner({{"eth0", 1011}});
    Snapshot now;
    now.links = {{ETH, "eth0", true, false}};
    now.addresses = {{ETH, Ip("10.11.0.179"), 24, false, true}};
    now.connman.defaultInterface = "eth0";
    const Plan plan = planner.Decide(now);
    EXPECT_EQ(plan.reasons.size(), 1U);
    EXPECT_TRUE(plan.routes.empty());
}

} // namespace
} // namespace OrvSourceRoutes
