// SPDX-License-Identifier: Apache-2.0
// The program itself and the kernel's own answers to router advertisements, in a network namespace of the test's own.
#include "PrivateBus.h"
#include "RouteKeeper.h"
#include "RouterAdvertisement.h"
#include "SourceRoutesProgram.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <memory>

namespace OrvSourceRoutes {
namespace {

using PrivateNetwork::Advertise;
using PrivateNetwork::Eventually;
using PrivateNetwork::Ip;

const std::string ETH_PREFIX = "2001:db8:11:";
const std::string CELL_PREFIX = "2001:db8:12:";

std::string Output(const std::string& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
    std::array<char, 256> room{};
    const char* const line = pipe ? std::fgets(room.data(), room.size(), pipe.get()) : nullptr;
    std::string text = line == nullptr ? "" : line;
    return text.substr(0, text.find('\n'));
}

/// The link-local address of the interface; empty before it has one.
std::string LinkLocalOf(const std::string& link) {
    return Output("ip -6 -o addr show dev " + link + " scope link -tentative | sed 's,.*inet6 ,,; s,/.*,,'");
}

bool HasAddressOf(const std::string& prefix, const std::string& link) {
    return Ip("-6 addr show dev " + link + " scope global -tentative | grep -q " + prefix);
}

/// Where the kernel sends what is not bound: the interface, or nothing.
std::string UnboundGoesOver() {
    return Output("ip -6 route get 2001:db8:c::10 2>/dev/null | sed -n 's/.* dev \\([^ ]*\\) .*/\\1/p'");
}

class ANetworkWithTwoIpv6Providers : public testing::Test {
protected:
    void SetUp() override {
        if (!PrivateNetwork::Entered()) {
            const char* const reason = "this machine allows no network namespaces";
            if (PrivateNetwork::Required())
                FAIL() << reason;
            GTEST_SKIP() << reason;
        }
        if (!Ip("-6 addr show dev lo | grep -q ::1"))
            GTEST_SKIP() << "this machine has no IPv6";
        // No search for duplicates: it takes a second for each address.
        Shell("echo 0 2>/dev/null >/proc/sys/net/ipv6/conf/default/dad_transmits");
        ASSERT_TRUE(PrivateNetwork::AddInterface("eth0") && PrivateNetwork::AddInterface("wwan0"));
        for (const char* link : {"eth0", "eth0-far", "wwan0", "wwan0-far"})
            ASSERT_TRUE(Eventually([&] { return !LinkLocalOf(link).empty(); })) << link;
    }
    void TearDown() override {
        for (const char* leave : {"link del eth0", "link del wwan0"})
            Ip(std::string(leave) + " 2>/dev/null");
        for (const char* rules : {"-4 rule", "-6 rule"}) // of a program that was killed
            Shell("ip " + std::string(rules) + " | sed -n 's/^\\([0-9]*\\):.* proto 111$/\\1/p' | xargs -rn1 ip " +
                  rules + " del pref");
    }

    static void BothAdvertise() {
        ASSERT_TRUE(Advertise("eth0-far", {600, ETH_PREFIX + ":"}) && Advertise("wwan0-far", {600, CELL_PREFIX + ":"}));
        ASSERT_TRUE(Eventually([] { return HasAddressOf(ETH_PREFIX, "eth0") && HasAddressOf(CELL_PREFIX, "wwan0"); }));
    }
    /// True when what is bound to the interface leaves through its router, and comes from its own prefix.
    static bool BoundGoesThere(const std::string& link, const std::string& prefix) {
        return Ip("-6 route get 2001:db8:c::10 oif " + link + " | grep -q 'via " + LinkLocalOf(link + "-far") +
                  " .*table 10.*src " + prefix + "'");
    }
    static bool BothBoundGoThere() {
        return BoundGoesThere("eth0", ETH_PREFIX) && BoundGoesThere("wwan0", CELL_PREFIX);
    }
};

TEST_F(ANetworkWithTwoIpv6Providers, HasRoutesForBothWhileTheProgramRuns) {
    BothAdvertise();
    EXPECT_FALSE(BothBoundGoThere());
    Program program;
    EXPECT_TRUE(Eventually([] { return BothBoundGoThere(); }));
    // What comes from a provider's address goes to that provider.
    EXPECT_TRUE(Ip("-6 route get 2001:db8:c::10 from " +
                   Output("ip -6 -o addr show dev wwan0 scope global | sed 's,.*inet6 ,,; s,/.*,,'") +
                   " | grep -q 'dev wwan0 table 1012'"));
    EXPECT_EQ(program.End(SIGTERM), 0);
    EXPECT_EQ(OwnEntries(), 0U);
    EXPECT_FALSE(BothBoundGoThere());
    EXPECT_TRUE(Ip("-6 route show default | grep -q 'dev wwan0 proto ra'"));
}

TEST_F(ANetworkWithTwoIpv6Providers, HasTheRouteOfAProviderThatComesLater) {
    Program program;
    BothAdvertise();
    EXPECT_TRUE(Eventually([] { return BothBoundGoThere(); }));
}

TEST_F(ANetworkWithTwoIpv6Providers, TakesTheRouteAwayWhenTheRouterSaysGoodBye) {
    Program program;
    BothAdvertise();
    ASSERT_TRUE(Eventually([] { return BothBoundGoThere(); }));
    ASSERT_TRUE(Advertise("wwan0-far", {0}));
    EXPECT_TRUE(Eventually([] { return !BoundGoesThere("wwan0", CELL_PREFIX); }));
    EXPECT_TRUE(BoundGoesThere("eth0", ETH_PREFIX));
}

TEST_F(ANetworkWithTwoIpv6Providers, TakesTheRouteAwayWhenTheRoutersLifetimeIsOver) {
    // The kernel would tell when it clears up.
    if (!Shell("echo 600 2>/dev/null >/proc/sys/net/ipv6/route/gc_interval"))
        GTEST_SKIP() << "this machine does not let us keep the kernel from clearing up";
    Program program;
    const auto told = [] { return BoundGoesThere("wwan0", CELL_PREFIX); };
    ASSERT_TRUE(Eventually([&] { return Advertise("wwan0-far", {2, CELL_PREFIX + ":"}) && told(); }));
    EXPECT_TRUE(Eventually([] { return !Ip("-6 rule show | grep -q ^1012:"); }));
    EXPECT_FALSE(told());
}

TEST_F(ANetworkWithTwoIpv6Providers, FollowsANewPrefix) {
    Program program;
    BothAdvertise();
    ASSERT_TRUE(Eventually([] { return BothBoundGoThere(); }));
    ASSERT_TRUE(Advertise("wwan0-far", {600, CELL_PREFIX + ":", 7200, 0}));
    ASSERT_TRUE(Advertise("wwan0-far", {600, "2001:db8:99::"}));
    EXPECT_TRUE(Eventually([] { return BoundGoesThere("wwan0", "2001:db8:99:"); }));
    EXPECT_TRUE(Eventually([] { return Ip("-6 rule show | grep -q '^1012:.*from 2001:db8:99::/64'"); }));
}

TEST_F(ANetworkWithTwoIpv6Providers, SendsWhatIsNotBoundWhereTheDefaultIs) {
    ASSERT_TRUE(Ip("addr add 10.11.0.179/24 dev eth0") && Ip("addr add 10.12.0.50/24 dev wwan0"));
    ASSERT_TRUE(Ip("route add default via 10.11.0.1"));
    Program program;
    BothAdvertise();
    EXPECT_TRUE(Eventually([] { return Ip("-6 route show default | grep -q 'dev eth0 proto 111'"); }));
    EXPECT_EQ(UnboundGoesOver(), "eth0");
    ASSERT_TRUE(Ip("route replace default via 10.12.0.1"));
    EXPECT_TRUE(Eventually([] { return UnboundGoesOver() == "wwan0"; }));
    ASSERT_TRUE(Ip("route replace default via 10.11.0.1"));
    EXPECT_TRUE(Eventually([] { return UnboundGoesOver() == "eth0"; }));
    // Whoever has no IPv6 on the default interface is told at once, and takes IPv4.
    ASSERT_TRUE(Advertise("eth0-far", {0}));
    EXPECT_TRUE(Eventually([] { return UnboundGoesOver().empty(); }));
    EXPECT_TRUE(BoundGoesThere("wwan0", CELL_PREFIX));
    EXPECT_EQ(program.End(SIGTERM), 0);
    EXPECT_EQ(UnboundGoesOver(), "wwan0");
}

TEST_F(ANetworkWithTwoIpv6Providers, SendsWhatIsNotBoundWhereTheConnectionManagersDefaultIs) {
    OrvTest::PrivateBus bus;
    bus.Start();
    const OrvTest::FakeConnmanProcess connman(bus, "eth0:ready wwan0:ready");
    Program program({}, bus.Address());
    BothAdvertise();
    EXPECT_TRUE(Eventually([] { return Ip("-6 route show default | grep -q 'dev eth0 proto 111'"); }));
    connman.Do("services wwan0:ready eth0:ready");
    EXPECT_TRUE(Eventually([] { return Ip("-6 route show default | grep -q 'dev wwan0 proto 111'"); }));
    EXPECT_EQ(UnboundGoesOver(), "wwan0");
    // A frozen one has not changed its mind.
    connman.Freeze();
    ASSERT_TRUE(Advertise("eth0-far", {0}));
    EXPECT_TRUE(Eventually([] { return !BoundGoesThere("eth0", ETH_PREFIX); }));
    EXPECT_EQ(UnboundGoesOver(), "wwan0");
    connman.Thaw();
    connman.Do("services eth0:ready wwan0:ready");
    EXPECT_TRUE(Eventually([] { return UnboundGoesOver().empty(); }));
}

TEST_F(ANetworkWithTwoIpv6Providers, AsksTheConnectionManagerWhenTheIpv4DefaultMoves) {
    ASSERT_TRUE(Ip("addr add 10.11.0.179/24 dev eth0") && Ip("addr add 10.12.0.50/24 dev wwan0"));
    ASSERT_TRUE(Ip("route add default via 10.11.0.1"));
    OrvTest::PrivateBus bus;
    bus.Start();
    const OrvTest::FakeConnmanProcess connman(bus, "eth0:ready wwan0:ready");
    Program program({}, bus.Address());
    BothAdvertise();
    ASSERT_TRUE(Eventually([] { return Ip("-6 route show default | grep -q 'dev eth0 proto 111'"); }));
    connman.Do("quiet");
    ASSERT_TRUE(Shell(
        "DBUS_SYSTEM_BUS_ADDRESS=" + bus.Address() +
        " dbus-send --system --print-reply --dest=net.connman "
        "/net/connman/service/wwan0 net.connman.Service.MoveBefore objpath:/net/connman/service/eth0 >/dev/null"));
    ASSERT_TRUE(Ip("route replace default via 10.12.0.1"));
    EXPECT_TRUE(Eventually([] { return UnboundGoesOver() == "wwan0"; }));
}

TEST_F(ANetworkWithTwoIpv6Providers, GetsTheRouteBackWithTheCarrier) {
    Program program;
    BothAdvertise();
    ASSERT_TRUE(Eventually([] { return BothBoundGoThere(); }));
    ASSERT_TRUE(Ip("link set wwan0-far down"));
    EXPECT_TRUE(Eventually([] { return !Ip("-6 rule show | grep -q ^1012:"); }));
    ASSERT_TRUE(Ip("link set wwan0-far up"));
    ASSERT_TRUE(Eventually([] { return !LinkLocalOf("wwan0-far").empty() && !LinkLocalOf("wwan0").empty(); }));
    ASSERT_TRUE(Advertise("wwan0-far", {600, CELL_PREFIX + ":"}));
    EXPECT_TRUE(Eventually([] { return BothBoundGoThere(); }));
}

TEST_F(ANetworkWithTwoIpv6Providers, SaysOnceWhoseRouteStandsInTheWayOfTheDefault) {
    ASSERT_TRUE(Ip("addr add 10.11.0.179/24 dev eth0") && Ip("route add default via 10.11.0.1"));
    ASSERT_TRUE(Ip("-6 route add default via fe80::7 dev wwan0-far metric 100 proto static"));
    const LogFile log;
    Program program(log.path);
    BothAdvertise();
    EXPECT_TRUE(Eventually([&] { return log.LinesWith("wwan0, IPv6: bound connections go via") == 1; }));
    EXPECT_TRUE(Eventually([] { return BothBoundGoThere(); })); // in whichever order it sees them
    EXPECT_EQ(log.LinesWith("another program has the route \"default via fe80::7 dev wwan0-far metric 100\""), 1);
    EXPECT_EQ(log.LinesWith("--interface"), 0);
    ASSERT_TRUE(Ip("-6 route del default via fe80::7 dev wwan0-far metric 100"));
    EXPECT_TRUE(Eventually([] { return Ip("-6 route show default | grep -q 'dev eth0 proto 111'"); }));
    EXPECT_EQ(log.LinesWith("cannot"), 1);
}

/// With a name server that ConnMan lists for Cellular, beyond Cellular's own link; the default is Ethernet's.
class ANameServerOfTheOtherIpv6Provider : public ANetworkWithTwoIpv6Providers {
protected:
    ANameServerOfTheOtherIpv6Provider() {
        connman.defaultInterface = "eth0";
        connman.nameServers = {{"wwan0", {SERVER}}};
    }
    static std::string RouteToIt() { return Output("ip -6 route show " + std::string(SERVER)); }
    /// What is logged meanwhile.
    std::string Refresh() {
        testing::internal::CaptureStderr();
        EXPECT_TRUE(keeper.Refresh(connman)) << "no other attempt is needed";
        return testing::internal::GetCapturedStderr();
    }

    static constexpr const char* SERVER = "2001:db8:22::53";
    ConnmanView connman;
    RouteKeeper keeper{{{"eth0", 1011}, {"wwan0", 1012}}};
};

TEST_F(ANameServerOfTheOtherIpv6Provider, HasARouteUntilTheConnectionManagerListsItNoMore) {
    BothAdvertise();
    Refresh();
    const std::string route = RouteToIt();
    EXPECT_NE(route.find("dev wwan0 proto 111"), std::string::npos) << route;
    connman.nameServers.clear();
    Refresh();
    EXPECT_EQ(RouteToIt(), "");
    EXPECT_TRUE(BothBoundGoThere());
    EXPECT_TRUE(keeper.Withdraw());
}

TEST_F(ANameServerOfTheOtherIpv6Provider, IsLeftToTheRouteOfAnotherProgramWithoutAWord) {
    BothAdvertise();
    ASSERT_TRUE(Ip("-6 route add " + std::string(SERVER) + " via fe80::7 dev wwan0 metric 100 proto static"));
    const std::string others = RouteToIt();
    for (int times = 0; times < 2; ++times) {
        const std::string log = Refresh();
        EXPECT_EQ(log.find("cannot"), std::string::npos) << log;
        EXPECT_EQ(RouteToIt(), others);
    }
    EXPECT_TRUE(BothBoundGoThere());
    EXPECT_TRUE(keeper.Withdraw());
    EXPECT_EQ(RouteToIt(), others);
}

TEST_F(ANetworkWithTwoIpv6Providers, LeavesIpv6OutWhereTheKernelHasNoRulesForIt) {
    ASSERT_TRUE(Ip("addr add 10.11.0.179/24 dev eth0") && Ip("route add default via 10.11.0.1"));
    BothAdvertise();
    for (const int verdict : {EAFNOSUPPORT, EOPNOTSUPP}) {
        RouteKeeper keeper({{"eth0", 1011}, {"wwan0", 1012}},
                           [&](OrvNetlink::Socket&) { return std::error_code(verdict, std::generic_category()); });
        testing::internal::CaptureStderr();
        EXPECT_TRUE(keeper.Refresh());
        EXPECT_TRUE(keeper.Refresh());
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_NE(log.find("eth0: bound connections go via 10.11.0.1"), std::string::npos) << log;
        const std::size_t warning = log.find("IPv6 is left out");
        EXPECT_NE(warning, std::string::npos) << log;
        EXPECT_EQ(log.find("IPv6 is left out", warning + 1), std::string::npos) << log;
        EXPECT_EQ(log.find("0, IPv6:"), std::string::npos) << log;
        EXPECT_EQ(OwnEntries(), 4U);
        EXPECT_EQ(keeper.NextExpiry(), std::nullopt);
        EXPECT_TRUE(keeper.Withdraw());
    }
}

TEST_F(ANetworkWithTwoIpv6Providers, HasAKernelWithRulesForIpv6) {
    OrvNetlink::Socket requests;
    EXPECT_EQ(AskForIpv6Rules(requests).value(), ENOENT);
}

TEST_F(ANetworkWithTwoIpv6Providers, SaysNothingOfIpv6WhereItIsSwitchedOff) {
    for (const char* link : {"eth0", "wwan0"}) {
        if (!Shell("echo 1 2>/dev/null >/proc/sys/net/ipv6/conf/" + std::string(link) + "/disable_ipv6"))
            GTEST_SKIP() << "this machine does not let us switch IPv6 off";
    }
    ASSERT_TRUE(Ip("addr add 10.11.0.179/24 dev eth0") && Ip("route add default via 10.11.0.1"));
    const LogFile log;
    Program program(log.path);
    EXPECT_TRUE(Eventually([] { return OwnEntries() == 4; }));
    EXPECT_EQ(program.End(SIGTERM), 0);
    EXPECT_EQ(log.LinesWith("IPv6"), 0);
    EXPECT_EQ(log.LinesWith("cannot"), 0);
}

} // namespace
} // namespace OrvSourceRoutes
