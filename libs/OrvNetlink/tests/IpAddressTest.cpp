// SPDX-License-Identifier: Apache-2.0
#include <OrvNetlink/IpAddress.h>

#include <gtest/gtest.h>
#include <sys/socket.h>

namespace OrvNetlink {
namespace {

IpAddress Ip(const char* text) {
    return *IpAddress::Parse(text);
}

TEST(AnIpAddress, IsReadAndWrittenInEitherFamily) {
    for (const char* text : {"10.11.0.179", "255.255.255.255", "2001:db8:11::ff:fe00:a01", "fe80::1", "::1"})
        EXPECT_EQ(Ip(text).Text(), text);
    for (const char* text : {"", "10.11.0", "10.11.0.1/24", "fe80::1%eth0", "2001:db8"})
        EXPECT_FALSE(IpAddress::Parse(text)) << text;
}

TEST(AnIpAddress, KnowsItsFamily) {
    EXPECT_TRUE(Ip("10.11.0.179").IsIpv4());
    EXPECT_EQ(Ip("10.11.0.179").Family(), AF_INET);
    EXPECT_EQ(Ip("10.11.0.179").Bits(), 32U);
    EXPECT_FALSE(Ip("2001:db8::1").IsIpv4());
    EXPECT_EQ(Ip("2001:db8::1").Family(), AF_INET6);
    EXPECT_EQ(Ip("2001:db8::1").Bits(), 128U);
}

TEST(AnIpAddress, ThatIsUnspecifiedIsNoneOfEitherFamily) {
    for (const char* text : {"0.0.0.0", "::"}) {
        EXPECT_FALSE(Ip(text)) << text;
        EXPECT_EQ(Ip(text), IpAddress{}) << text;
        EXPECT_EQ(Ip(text).Family(), AF_UNSPEC) << text;
    }
    EXPECT_NE(Ip("1.2.3.4"), Ip("::1.2.3.4"));
}

TEST(AnIpAddress, HasANetworkOfEachLength) {
    EXPECT_EQ(Ip("10.11.255.179").Network(32), Ip("10.11.255.179"));
    EXPECT_EQ(Ip("10.11.255.179").Network(23), Ip("10.11.254.0"));
    EXPECT_EQ(Ip("10.11.255.179").Network(0), IpAddress{});
    EXPECT_EQ(Ip("2001:db8:11:ff::1").Network(128), Ip("2001:db8:11:ff::1"));
    EXPECT_EQ(Ip("2001:db8:11:ff::1").Network(64), Ip("2001:db8:11:ff::"));
    EXPECT_EQ(Ip("2001:db8:11:ff::1").Network(61), Ip("2001:db8:11:f8::"));
    EXPECT_EQ(Ip("2001:db8:11:ff::1").Network(0), IpAddress{});
}

TEST(AnIpAddress, KnowsHowFarItReaches) {
    for (const char* text : {"169.254.7.7", "fe80::1", "febf::1"})
        EXPECT_TRUE(Ip(text).IsLinkLocal()) << text;
    for (const char* text : {"169.253.7.7", "10.254.0.1", "fec0::1", "2001:db8::1", "fd12::1"})
        EXPECT_FALSE(Ip(text).IsLinkLocal()) << text;
    for (const char* text : {"fc00::1", "fd12::1"})
        EXPECT_TRUE(Ip(text).IsUniqueLocal()) << text;
    for (const char* text : {"252.0.0.1", "fe80::1", "2001:db8::1"})
        EXPECT_FALSE(Ip(text).IsUniqueLocal()) << text;
}

} // namespace
} // namespace OrvNetlink
