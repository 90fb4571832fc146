// SPDX-License-Identifier: Apache-2.0
// The real kernel, in a network namespace of the test's own.
#include "NetworkWatcher.h"

#include "PrivateNetwork.h"
#include "RouterAdvertisement.h"

#include <gtest/gtest.h>

#include <functional>

namespace GatewayApp {
namespace {

using namespace std::chrono_literals;
using OrvStackSdk::OrvEvent;
using PrivateNetwork::Advertise;
using PrivateNetwork::Eventually;
using PrivateNetwork::Ip;
using Events = WanInterfaces::Events;

class ANetworkWithBothFamilies : public testing::Test {
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
        ASSERT_TRUE(PrivateNetwork::AddInterface("eth0") && PrivateNetwork::AddInterface("wwan0"));
        // An own link-local address is needed to send and to receive.
        for (const char* link : {"eth0", "eth0-far", "wwan0", "wwan0-far"})
            ASSERT_TRUE(Eventually([&] { return LinkLocal(link); })) << link;
    }
    void TearDown() override {
        for (const char* leave : {"link del eth0", "link del wwan0", "link del old0"})
            Ip(std::string(leave) + " 2>/dev/null");
    }

    static bool LinkLocal(const std::string& link) {
        return Ip("-6 addr show dev " + link + " scope link -tentative | grep -q inet6");
    }

    /// Lets the loop run until the condition holds.
    bool Until(const std::function<bool()>& condition) {
        bool held = false;
        const auto end = std::chrono::steady_clock::now() + 30s;
        Timer look(loop, [&] {
            held = condition();
            if (held || std::chrono::steady_clock::now() > end)
                loop.Quit();
            else
                look.Once(5ms);
        });
        look.Once(0ms);
        loop.Run();
        return held;
    }
    bool UntilTold(const Events& expected) {
        return Until([&] { return told == expected; });
    }

    EventLoop loop;
    Events told;
};

TEST_F(ANetworkWithBothFamilies, TellsOfAnAddressWhenARouterIsAdvertised) {
    NetworkWatcher watcher(loop, WanInterfaces("eth0", "wwan0"),
                           {[&](const Events& events) { told.insert(told.end(), events.begin(), events.end()); },
                            [](const std::string&) {}});
    ASSERT_TRUE(Advertise("eth0-far", {0, "2001:db8:11::"}));
    EXPECT_TRUE(Until([] { return Ip("-6 addr show dev eth0 scope global -tentative | grep -q 2001:db8:11"); }));
    EXPECT_EQ(told, Events{});
    ASSERT_TRUE(Advertise("eth0-far", {600, "2001:db8:11::"}));
    EXPECT_TRUE(UntilTold({OrvEvent::ETHERNET_IP_GAINED}));
    EXPECT_TRUE(Until([&] { return watcher.DefaultInterface() == "eth0"; }));
    // Another prefix beside it, and the other family: nothing that the application has to know.
    ASSERT_TRUE(Advertise("eth0-far", {600, "2001:db8:99::"}));
    EXPECT_TRUE(Until([&] { return Ip("-6 addr show dev eth0 scope global -tentative | grep -q 2001:db8:99"); }));
    ASSERT_TRUE(Ip("addr add 10.11.0.179/24 dev eth0"));
    ASSERT_TRUE(Advertise("eth0-far", {0}));
    EXPECT_TRUE(Until([&] { return watcher.DefaultInterface().empty(); }));
    EXPECT_EQ(told, Events{OrvEvent::ETHERNET_IP_GAINED});
    ASSERT_TRUE(Ip("addr del 10.11.0.179/24 dev eth0"));
    EXPECT_TRUE(UntilTold({OrvEvent::ETHERNET_IP_GAINED, OrvEvent::ETHERNET_IP_LOST}));
}

TEST_F(ANetworkWithBothFamilies, FindsWhatWasThereBefore) {
    ASSERT_TRUE(Ip("-6 addr add 2001:db8:12::a/64 dev wwan0 nodad"));
    ASSERT_TRUE(Ip("-6 route add default via fe80::1 dev wwan0"));
    const NetworkWatcher watcher(loop, WanInterfaces("eth0", "wwan0"),
                                 {[](const Events&) {}, [](const std::string&) {}});
    EXPECT_TRUE(watcher.Wan().HasAddress(WanInterfaces::Path::CELLULAR));
    EXPECT_FALSE(watcher.Wan().HasAddress(WanInterfaces::Path::ETHERNET));
    EXPECT_EQ(watcher.DefaultInterface(), "wwan0");
}

TEST_F(ANetworkWithBothFamilies, KnowsTheAddressesOfALinkThatIsGivenItsName) {
    ASSERT_TRUE(Ip("link set wwan0 down") && Ip("link set wwan0 name old0") && Ip("link set old0 up"));
    ASSERT_TRUE(Ip("addr add 10.12.0.2/24 dev old0") && Ip("-6 addr add 2001:db8:12::2/64 dev old0 nodad"));
    NetworkWatcher watcher(loop, WanInterfaces("eth0", "wwan0"), {[](const Events&) {}, [](const std::string&) {}});
    // A link that was taken down for it would lose its IPv6 addresses and get none back.
    if (Ip("link set old0 name wwan0 2>&1 | grep -q 'Device or resource busy'"))
        GTEST_SKIP() << "this kernel renames no link that is up";
    ASSERT_TRUE(Ip("link show wwan0 >/dev/null")) << "it was not renamed";
    for (const char* address : {"10.12.0.2", "2001:db8:12::2"})
        EXPECT_TRUE(Until([&] { return watcher.Wan().OwnerOf(address) == "wwan0"; })) << address;
}

TEST_F(ANetworkWithBothFamilies, TellsOfAnAddressThatGoesAlsoWhereTheOtherFamilyStays) {
    int calls = 0;
    NetworkWatcher watcher(loop, WanInterfaces("eth0", "wwan0"),
                           {[&](const Events& events) {
                                ++calls;
                                told.insert(told.end(), events.begin(), events.end());
                            },
                            [](const std::string&) {}});
    ASSERT_TRUE(Ip("addr add 10.11.0.179/24 dev eth0") && Advertise("eth0-far", {600, "2001:db8:11::"}));
    EXPECT_TRUE(
        Until([&] { return watcher.DefaultInterface() == "eth0" && watcher.Wan().OwnerOf("10.11.0.179") == "eth0"; }));
    EXPECT_TRUE(Until([] { return Ip("-6 addr show dev eth0 scope global -tentative | grep -q 2001:db8:11"); }));
    calls = 0;
    ASSERT_TRUE(Ip("addr del 10.11.0.179/24 dev eth0"));
    EXPECT_TRUE(Until([&] { return calls > 0 && watcher.Wan().OwnerOf("10.11.0.179").empty(); }));
    EXPECT_EQ(told, Events{OrvEvent::ETHERNET_IP_GAINED});
}

TEST_F(ANetworkWithBothFamilies, TakesTheDefaultInterfaceOnWhichTheFamiliesAgree) {
    ASSERT_TRUE(Ip("addr add 10.12.0.50/24 dev wwan0") && Ip("route add default via 10.12.0.1"));
    ASSERT_TRUE(Ip("-6 route add default via fe80::1 dev eth0") && Ip("-6 route append default via fe80::1 dev wwan0"));
    const NetworkWatcher::Handler nobody{[](const Events&) {}, [](const std::string&) {}};
    EXPECT_EQ(NetworkWatcher(loop, WanInterfaces("eth0", "wwan0"), nobody).DefaultInterface(), "wwan0");
    // Anybody can advertise a router.
    ASSERT_TRUE(Ip("-6 route del default via fe80::1 dev wwan0"));
    EXPECT_EQ(NetworkWatcher(loop, WanInterfaces("eth0", "wwan0"), nobody).DefaultInterface(), "wwan0");
    // IPv6 has been moved with the connection manager's order, and IPv4 has only one way.
    ASSERT_TRUE(Ip("-6 route add default via fe80::1 dev eth0 metric 100 proto 111"));
    EXPECT_EQ(NetworkWatcher(loop, WanInterfaces("eth0", "wwan0"), nobody).DefaultInterface(), "eth0");
    // Whoever has the default has no IPv6.
    ASSERT_TRUE(Ip("-6 route add unreachable default metric 50"));
    EXPECT_EQ(NetworkWatcher(loop, WanInterfaces("eth0", "wwan0"), nobody).DefaultInterface(), "wwan0");
}

} // namespace
} // namespace GatewayApp
