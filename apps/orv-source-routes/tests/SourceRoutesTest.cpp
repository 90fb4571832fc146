// SPDX-License-Identifier: Apache-2.0
// The program itself, in a network namespace of its own.
#include "SourceRoutesProgram.h"

#include <gtest/gtest.h>

#include <csignal>

namespace OrvSourceRoutes {
namespace {

using PrivateNetwork::Eventually;
using PrivateNetwork::Ip;

const auto* const environment = testing::AddGlobalTestEnvironment(new PrivateNetwork::InPrivateNetwork);

/// True when the kernel takes the cloud's answer that comes in over the interface for the address.
bool TakesAnAnswerFor(const std::string& address, const std::string& interface) {
    return Ip("route get " + address + " from 198.51.100.10 iif " + interface + " >/dev/null 2>&1");
}

/// True when a connection that is bound to the interface leaves through the router. Without a route of its own the
/// kernel takes every destination for a neighbour, and the connection fails only after neighbour discovery has.
bool GoesVia(const std::string& router, const std::string& interface) {
    return Ip("route get 198.51.100.10 oif " + interface + " | grep -q 'via " + router + " '");
}

class ANetworkWithTwoWanInterfaces : public testing::Test {
protected:
    void SetUp() override {
        if (!PrivateNetwork::Entered()) {
            const char* const reason = "this machine allows no network namespaces";
            if (PrivateNetwork::Required())
                FAIL() << reason;
            GTEST_SKIP() << reason;
        }
        ASSERT_TRUE(PrivateNetwork::AddInterface("eth0") && PrivateNetwork::AddInterface("wwan0"));
        ASSERT_TRUE(Ip("addr add 10.11.0.179/24 dev eth0") && Ip("addr add 10.12.0.50/24 dev wwan0"));
        ASSERT_TRUE(Ip("route add default via 10.11.0.1"));
        ASSERT_TRUE(Ip("route add 10.12.0.1 dev wwan0 scope link"));
    }
    void TearDown() override {
        for (const char* leave : {"link del eth0", "link del wwan0"})
            Ip(std::string(leave) + " 2>/dev/null");
    }

    bool EventuallyVia(const std::string& router, const std::string& interface) {
        return Eventually([&] { return GoesVia(router, interface); });
    }
};

TEST_F(ANetworkWithTwoWanInterfaces, HasNoRouteForTheOtherInterfaceByItself) {
    EXPECT_TRUE(GoesVia("10.11.0.1", "eth0"));
    EXPECT_FALSE(GoesVia("10.12.0.1", "wwan0"));
}

TEST_F(ANetworkWithTwoWanInterfaces, HasRoutesForBothWhileTheProgramRuns) {
    Program program;
    EXPECT_TRUE(EventuallyVia("10.12.0.1", "wwan0"));
    EXPECT_TRUE(EventuallyVia("10.11.0.1", "eth0"));
    EXPECT_TRUE(Eventually([&] { return OwnEntries() == 8; }));
    EXPECT_EQ(program.End(SIGTERM), 0);
    EXPECT_EQ(OwnEntries(), 0U);
    EXPECT_FALSE(GoesVia("10.12.0.1", "wwan0"));
}

TEST_F(ANetworkWithTwoWanInterfaces, KeepsTheRouteOfTheInterfaceThatLosesTheDefault) {
    Program program;
    ASSERT_TRUE(Eventually([&] { return OwnEntries() == 8; }));
    ASSERT_TRUE(Ip("route del default") && Ip("route add default via 10.12.0.1"));
    // Rules are added last: once this one is back, the lost default has been dealt with too.
    ASSERT_TRUE(Ip("rule del pref 1012"));
    ASSERT_TRUE(Eventually([] { return Ip("rule show | grep -q ^1012:"); }));
    EXPECT_TRUE(GoesVia("10.11.0.1", "eth0"));
}

TEST_F(ANetworkWithTwoWanInterfaces, TakesAnswersWithoutAnyDefaultRouteAlthoughTheSourcesAreChecked) {
    if (!Shell("echo 2 2>/dev/null >/proc/sys/net/ipv4/conf/all/rp_filter"))
        GTEST_SKIP() << "this machine does not let us check sources";
    ASSERT_TRUE(Ip("route del default"));
    ASSERT_FALSE(TakesAnAnswerFor("10.12.0.50", "wwan0"));
    Program program;
    EXPECT_TRUE(Eventually([] { return TakesAnAnswerFor("10.12.0.50", "wwan0"); }));
    EXPECT_EQ(program.End(SIGTERM), 0);
    EXPECT_FALSE(TakesAnAnswerFor("10.12.0.50", "wwan0"));
}

TEST_F(ANetworkWithTwoWanInterfaces, RoutesWhatIsNotBoundByTheMainTable) {
    Program program;
    ASSERT_TRUE(Eventually([&] { return OwnEntries() == 8; }));
    EXPECT_TRUE(Ip("route get 198.51.100.10 from 10.12.0.50 | grep -q 'via 10.11.0.1 '"));
}

TEST_F(ANetworkWithTwoWanInterfaces, SaysOnceThatAnotherProgramUsesTheTable) {
    ASSERT_TRUE(Ip("route add default via 10.11.0.9 table 1011") && Ip("route add 10.11.0.0/24 dev eth0 table 1011"));
    const LogFile log;
    Program program(log.path);
    ASSERT_TRUE(Eventually([&] { return log.LinesWith("File exists") == 2; }));
    for (int attempts = 0; attempts < 3; ++attempts) {
        // Nobody but the program puts it back, when it looks at everything again.
        ASSERT_TRUE(Ip("rule del pref 1012"));
        ASSERT_TRUE(Eventually([] { return Ip("rule show | grep -q ^1012:"); }));
    }
    EXPECT_EQ(log.LinesWith("File exists"), 2);
    ASSERT_TRUE(Ip("route del default table 1011") && Ip("route del 10.11.0.0/24 dev eth0 table 1011"));
    EXPECT_TRUE(Eventually([&] { return log.LinesWith("eth0: bound connections go via 10.11.0.1") == 1; }));
}

TEST_F(ANetworkWithTwoWanInterfaces, GivesAnInterfaceThatComesLaterItsRoute) {
    ASSERT_TRUE(Ip("link del wwan0"));
    Program program;
    ASSERT_TRUE(Eventually([&] { return OwnEntries() == 4; }));
    ASSERT_TRUE(PrivateNetwork::AddInterface("wwan0") && Ip("addr add 10.12.0.77/24 dev wwan0"));
    ASSERT_TRUE(Ip("route add 10.22.0.53 via 10.12.0.1"));
    EXPECT_TRUE(EventuallyVia("10.12.0.1", "wwan0"));
}

TEST_F(ANetworkWithTwoWanInterfaces, TakesTheRouteAwayWithTheAddress) {
    Program program;
    ASSERT_TRUE(Eventually([&] { return OwnEntries() == 8; }));
    ASSERT_TRUE(Ip("addr flush dev wwan0"));
    EXPECT_TRUE(Eventually([&] { return OwnEntries() == 4; }));
    ASSERT_TRUE(Ip("addr add 10.12.0.51/24 dev wwan0") && Ip("route add 10.12.0.1 dev wwan0 scope link"));
    EXPECT_TRUE(EventuallyVia("10.12.0.1", "wwan0"));
}

TEST_F(ANetworkWithTwoWanInterfaces, GetsTheRouteBackWithTheCarrier) {
    Program program;
    ASSERT_TRUE(Eventually([&] { return OwnEntries() == 8; }));
    ASSERT_TRUE(Ip("link set wwan0-far down"));
    EXPECT_TRUE(Eventually([&] { return OwnEntries() == 4; }));
    ASSERT_TRUE(Ip("link set wwan0-far up"));
    EXPECT_TRUE(Eventually([&] { return OwnEntries() == 8; }));
}

TEST_F(ANetworkWithTwoWanInterfaces, AdoptsItsOwnEntriesAfterACrash) {
    {
        Program crashing;
        ASSERT_TRUE(Eventually([&] { return OwnEntries() == 8; }));
        crashing.End(SIGKILL);
    }
    ASSERT_TRUE(Ip("route del 10.12.0.1 dev wwan0"));
    ASSERT_TRUE(Ip("rule add pref 1099 oif eth0 lookup 1099 protocol 111"));
    Program program;
    EXPECT_TRUE(Eventually([&] { return OwnEntries() == 8; }));
    EXPECT_TRUE(GoesVia("10.12.0.1", "wwan0"));
    EXPECT_EQ(program.End(SIGINT), 0);
    EXPECT_EQ(OwnEntries(), 0U);
}

TEST_F(ANetworkWithTwoWanInterfaces, KeepsTheEntriesOfOthers) {
    ASSERT_TRUE(Ip("rule add pref 1005 oif eth0 lookup 1011") && Ip("route add 192.0.2.0/24 dev eth0 table 1011"));
    Program program;
    ASSERT_TRUE(Eventually([&] { return OwnEntries() == 8; }));
    EXPECT_EQ(program.End(SIGTERM), 0);
    EXPECT_TRUE(Ip("rule del pref 1005 oif eth0 lookup 1011"));
    EXPECT_TRUE(Ip("route del 192.0.2.0/24 dev eth0 table 1011"));
}

} // namespace
} // namespace OrvSourceRoutes
