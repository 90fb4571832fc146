// SPDX-License-Identifier: Apache-2.0
#include <OrvNetlink/Messages.h>

#include <gtest/gtest.h>
#include <libmnl/libmnl.h>
#include <linux/icmpv6.h>
#include <linux/if_addr.h>
#include <linux/rtnetlink.h>

#include <chrono>

namespace OrvNetlink {
namespace {

using namespace std::chrono_literals;

constexpr unsigned ETH = 2;
constexpr std::uint8_t OURS = 111;

IpAddress Ip(const char* text) {
    return *IpAddress::Parse(text);
}

/// What the kernel would tell of the address.
Address Told(const char* address, std::uint32_t flags, std::uint8_t scope = RT_SCOPE_UNIVERSE) {
    alignas(nlmsghdr) char room[MESSAGE_ROOM];
    nlmsghdr& message = *mnl_nlmsg_put_header(room);
    message.nlmsg_type = RTM_NEWADDR;
    auto& header = *static_cast<ifaddrmsg*>(mnl_nlmsg_put_extra_header(&message, sizeof(ifaddrmsg)));
    header.ifa_family = AF_INET6;
    header.ifa_prefixlen = 64;
    header.ifa_index = ETH;
    header.ifa_scope = scope;
    header.ifa_flags = static_cast<std::uint8_t>(flags);
    mnl_attr_put(&message, IFA_ADDRESS, 16, Ip(address).bytes.data());
    mnl_attr_put_u32(&message, IFA_FLAGS, flags);
    return ReadAddress(message).value();
}

TEST(AnIpv6Address, IsReadWithItsPrefix) {
    const Address address = Told("2001:db8:11::a01", 0);
    EXPECT_EQ(address.link, ETH);
    EXPECT_EQ(address.address, Ip("2001:db8:11::a01"));
    EXPECT_EQ(address.prefixLength, 64U);
    EXPECT_TRUE(address.Usable());
    EXPECT_FALSE(address.secondary || address.temporary || address.deprecated);
}

TEST(AnIpv6Address, CannotBeUsedBeforeItsDuplicatesHaveBeenLookedFor) {
    EXPECT_FALSE(Told("2001:db8::1", IFA_F_TENTATIVE).Usable());
    EXPECT_TRUE(Told("2001:db8::1", IFA_F_TENTATIVE | IFA_F_OPTIMISTIC).Usable());
}

TEST(AnIpv6Address, CannotBeUsedWhenAnotherHostHasIt) {
    EXPECT_TRUE(Told("2001:db8::1", IFA_F_DADFAILED).duplicate);
    EXPECT_FALSE(Told("2001:db8::1", IFA_F_DADFAILED).Usable());
}

TEST(AnIpv6Address, CanBeUsedAlthoughItIsTemporaryOrDeprecated) {
    EXPECT_TRUE(Told("2001:db8::1", IFA_F_TEMPORARY).temporary);
    EXPECT_FALSE(Told("2001:db8::1", IFA_F_TEMPORARY).secondary);
    EXPECT_TRUE(Told("2001:db8::1", IFA_F_DEPRECATED).deprecated);
    EXPECT_TRUE(Told("2001:db8::1", IFA_F_TEMPORARY | IFA_F_DEPRECATED).Usable());
}

TEST(AnIpv6Address, IsNotGlobalOnItsLinkOnly) {
    EXPECT_FALSE(Told("fe80::1", 0, RT_SCOPE_LINK).global);
    EXPECT_FALSE(Told("::1", 0, RT_SCOPE_HOST).global);
}

TEST(AnIpv6Address, CanBeUsedAlthoughItIsUniqueLocal) {
    EXPECT_TRUE(Told("fd12:3456::1", 0).Usable());
}

TEST(ARoute, IsReadAsItWasWritten) {
    const Route routes[] = {
        {1011, OURS, ETH, {}, 0, Ip("fe80::1"), Ip("2001:db8::a"), 1024, AF_INET6},
        {1011, OURS, ETH, Ip("2001:db8:11::"), 64, {}, {}, 256, AF_INET6},
        {1011, OURS, ETH, Ip("10.11.0.0"), 24, {}, Ip("10.11.0.179"), 0, AF_INET},
        {1011, OURS, ETH, {}, 0, Ip("10.11.0.1"), Ip("10.11.0.179"), 0, AF_INET},
        {RT_TABLE_MAIN, OURS, 0, {}, 0, {}, {}, 100, AF_INET6},
    };
    for (const Route& route : routes) {
        alignas(nlmsghdr) char room[MESSAGE_ROOM];
        const std::optional<Route> read = ReadRoute(WriteRoute(room, RTM_NEWROUTE, 0, route));
        ASSERT_TRUE(read);
        EXPECT_TRUE(*read == route) << route.destination.Text() << " in table " << route.table;
        EXPECT_EQ(read->IsUnreachable(), route.IsUnreachable());
        EXPECT_FALSE(read->lifetime);
    }
}

TEST(ARoute, TellsHowLongItHasToLive) {
    const auto left = [](std::int32_t hundredths) {
        alignas(nlmsghdr) char room[MESSAGE_ROOM];
        nlmsghdr& message = WriteRoute(room, RTM_NEWROUTE, 0,
                                       {RT_TABLE_MAIN, RTPROT_RA, ETH, {}, 0, Ip("fe80::1"), {}, 1024, AF_INET6});
        rta_cacheinfo cache{};
        cache.rta_expires = hundredths;
        mnl_attr_put(&message, RTA_CACHEINFO, sizeof(cache), &cache);
        return ReadRoute(message).value();
    };
    EXPECT_FALSE(left(0).lifetime);
    EXPECT_EQ(left(60000).lifetime, 600s);
    EXPECT_FALSE(left(60000).IsOver());
    EXPECT_TRUE(left(-1).IsOver());
}

TEST(ARoute, TellsWhatItsRouterThinksOfItself) {
    const auto preferred = [](std::uint8_t preference) {
        alignas(nlmsghdr) char room[MESSAGE_ROOM];
        nlmsghdr& message = WriteRoute(room, RTM_NEWROUTE, 0,
                                       {RT_TABLE_MAIN, RTPROT_RA, ETH, {}, 0, Ip("fe80::1"), {}, 1024, AF_INET6});
        mnl_attr_put_u8(&message, RTA_PREF, preference);
        return ReadRoute(message).value().preference;
    };
    EXPECT_EQ(preferred(ICMPV6_ROUTER_PREF_LOW), -1);
    EXPECT_EQ(preferred(ICMPV6_ROUTER_PREF_MEDIUM), 0);
    EXPECT_EQ(preferred(ICMPV6_ROUTER_PREF_HIGH), 1);
}

TEST(ARule, IsReadAsItWasWritten) {
    const Rule rules[] = {
        {1011, 1011, OURS, "eth0", {}, 0, AF_INET6},
        {32768, 1011, OURS, "", Ip("2001:db8:11::"), 64, AF_INET6},
        {1012, 1012, OURS, "wwan0", {}, 0, AF_INET},
        {32768, 1012, OURS, "", Ip("10.12.0.50"), 32, AF_INET},
    };
    for (const Rule& rule : rules) {
        alignas(nlmsghdr) char room[MESSAGE_ROOM];
        const std::optional<Rule> read = ReadRule(WriteRule(room, RTM_NEWRULE, 0, rule));
        ASSERT_TRUE(read);
        EXPECT_TRUE(*read == rule) << rule.priority;
    }
}

} // namespace
} // namespace OrvNetlink
