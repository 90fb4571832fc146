// SPDX-License-Identifier: Apache-2.0
#include "WanInterfaces.h"

#include <gtest/gtest.h>

namespace GatewayApp {
namespace {

using OrvNetlink::Address;
using OrvNetlink::IpAddress;
using OrvNetlink::Link;
using OrvStackSdk::OrvEvent;
using Events = WanInterfaces::Events;

const Link ETH_UP{2, "eth0", true, false};
const Link ETH_DOWN{2, "eth0", false, false};
const Link CELL_UP{3, "wwan0", true, false};

Address Ip(unsigned link, const char* address) {
    return Address{link, *IpAddress::Parse(address), 24, false, true};
}

Address Ipv6(unsigned link, const char* address) {
    Address result{link, *IpAddress::Parse(address), 64, false, true};
    return result;
}

Address Tentative(Address address) {
    address.tentative = true;
    return address;
}

class AGatewayWithEthernet : public testing::Test {
protected:
    AGatewayWithEthernet() { wan.Replace({ETH_UP}, {Ip(2, "10.11.0.2")}); }
    WanInterfaces wan{"eth0", "wwan0"};
};

TEST(AFreshGateway, ReportsEverythingDown) {
    const Events down = {OrvEvent::ETHERNET_DISCONNECTED, OrvEvent::ETHERNET_IP_LOST, OrvEvent::CELLULAR_DISCONNECTED,
                         OrvEvent::CELLULAR_IP_LOST};
    EXPECT_EQ(WanInterfaces("eth0", "wwan0").State(), down);
}

TEST_F(AGatewayWithEthernet, TellsItsState) {
    const Events state = {OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CELLULAR_DISCONNECTED,
                          OrvEvent::CELLULAR_IP_LOST};
    EXPECT_EQ(wan.State(), state);
}

TEST_F(AGatewayWithEthernet, TellsTheCableOnceOutAndOnceIn) {
    EXPECT_EQ(wan.LinkSeen(ETH_DOWN), Events{OrvEvent::ETHERNET_DISCONNECTED});
    EXPECT_EQ(wan.LinkSeen(ETH_DOWN), Events{});
    EXPECT_EQ(wan.LinkSeen(ETH_UP), Events{OrvEvent::ETHERNET_CONNECTED});
    EXPECT_EQ(wan.LinkSeen(ETH_UP), Events{});
}

TEST_F(AGatewayWithEthernet, TellsTheFirstAddressAndTheLastOne) {
    EXPECT_EQ(wan.AddressSeen(Ip(2, "10.11.0.2")), Events{});
    EXPECT_EQ(wan.AddressSeen(Ip(2, "10.11.0.3")), Events{});
    EXPECT_EQ(wan.AddressGone(Ip(2, "10.11.0.2")), Events{});
    EXPECT_EQ(wan.AddressGone(Ip(2, "10.11.0.3")), Events{OrvEvent::ETHERNET_IP_LOST});
    EXPECT_EQ(wan.AddressGone(Ip(2, "10.11.0.3")), Events{});
    EXPECT_EQ(wan.AddressSeen(Ip(2, "10.11.0.4")), Events{OrvEvent::ETHERNET_IP_GAINED});
}

TEST_F(AGatewayWithEthernet, KeepsTheAddressFlagWhenOnlyTheCableIsOut) {
    wan.LinkSeen(ETH_DOWN);
    EXPECT_EQ(wan.State().at(1), OrvEvent::ETHERNET_IP_GAINED);
}

TEST_F(AGatewayWithEthernet, DoesNotTakeALinkLocalAddressForOne) {
    wan.LinkSeen(CELL_UP);
    Address linkLocal = Ip(3, "169.254.7.7");
    linkLocal.global = false;
    EXPECT_EQ(wan.AddressSeen(linkLocal), Events{});
}

TEST_F(AGatewayWithEthernet, TellsOfAModemThatComesAndGoes) {
    EXPECT_EQ(wan.LinkSeen(CELL_UP), Events{OrvEvent::CELLULAR_CONNECTED});
    EXPECT_EQ(wan.AddressSeen(Ip(3, "10.12.0.2")), Events{OrvEvent::CELLULAR_IP_GAINED});
    const Events gone = {OrvEvent::CELLULAR_DISCONNECTED, OrvEvent::CELLULAR_IP_LOST};
    EXPECT_EQ(wan.LinkGone(CELL_UP), gone);
    EXPECT_EQ(wan.AddressSeen(Ip(3, "10.12.0.2")), Events{});
    const Link again{7, "wwan0", true, false};
    EXPECT_EQ(wan.LinkSeen(again), Events{OrvEvent::CELLULAR_CONNECTED});
    EXPECT_EQ(wan.AddressSeen(Ip(7, "10.12.0.2")), Events{OrvEvent::CELLULAR_IP_GAINED});
}

TEST_F(AGatewayWithEthernet, LosesAnInterfaceThatIsRenamed) {
    const Link renamed{2, "lan0", true, false};
    const Events gone = {OrvEvent::ETHERNET_DISCONNECTED, OrvEvent::ETHERNET_IP_LOST};
    EXPECT_EQ(wan.LinkSeen(renamed), gone);
}

TEST_F(AGatewayWithEthernet, TellsALinkThatIsGivenItsNameFromTheOneThatHasIt) {
    EXPECT_FALSE(wan.IsNew({2, "eth0", true, false}));
    EXPECT_TRUE(wan.IsNew({3, "eth0", true, false}));
    EXPECT_FALSE(wan.IsNew({3, "lan0", true, false}));
    wan.LinkSeen({2, "lan0", true, false});
    EXPECT_TRUE(wan.IsNew({2, "eth0", true, false}));
}

TEST_F(AGatewayWithEthernet, IgnoresOtherInterfaces) {
    EXPECT_EQ(wan.LinkSeen({9, "docker0", true, false}), Events{});
    EXPECT_EQ(wan.AddressSeen(Ip(9, "172.17.0.1")), Events{});
    EXPECT_EQ(wan.LinkGone({9, "docker0", false, false}), Events{});
}

TEST_F(AGatewayWithEthernet, CatchesUpAfterLostNotifications) {
    const Events events = {OrvEvent::ETHERNET_DISCONNECTED, OrvEvent::ETHERNET_IP_LOST, OrvEvent::CELLULAR_CONNECTED,
                           OrvEvent::CELLULAR_IP_GAINED};
    EXPECT_EQ(wan.Replace({ETH_DOWN, CELL_UP}, {Ip(3, "10.12.0.2")}), events);
    EXPECT_EQ(wan.Replace({ETH_DOWN, CELL_UP}, {Ip(3, "10.12.0.2")}), Events{});
}

TEST_F(AGatewayWithEthernet, CountsAnIpv6AddressOnceThereIsARouter) {
    wan.LinkSeen(CELL_UP);
    EXPECT_EQ(wan.AddressSeen(Ipv6(3, "2001:db8:12::a")), Events{});
    EXPECT_FALSE(wan.HasAddress(WanInterfaces::Path::CELLULAR));
    EXPECT_EQ(wan.RoutersAre({2}), Events{});
    EXPECT_EQ(wan.RoutersAre({3}), Events{OrvEvent::CELLULAR_IP_GAINED});
    EXPECT_TRUE(wan.Usable(WanInterfaces::Path::CELLULAR));
    EXPECT_EQ(wan.RoutersAre({}), Events{OrvEvent::CELLULAR_IP_LOST});
}

TEST_F(AGatewayWithEthernet, CountsAUniqueLocalAddressWithARouterToo) {
    wan.LinkSeen(CELL_UP);
    wan.RoutersAre({3});
    EXPECT_EQ(wan.AddressSeen(Ipv6(3, "fd12::a")), Events{OrvEvent::CELLULAR_IP_GAINED});
}

TEST_F(AGatewayWithEthernet, DoesNotCountAnIpv6AddressThatIsNotReadyOrAnothers) {
    wan.LinkSeen(CELL_UP);
    wan.RoutersAre({3});
    const Address address = Ipv6(3, "2001:db8:12::a");
    EXPECT_EQ(wan.AddressSeen(Tentative(address)), Events{});
    EXPECT_EQ(wan.AddressSeen(address), Events{OrvEvent::CELLULAR_IP_GAINED});
    Address anothers = address;
    anothers.duplicate = true;
    EXPECT_EQ(wan.AddressSeen(anothers), Events{OrvEvent::CELLULAR_IP_LOST});
}

TEST_F(AGatewayWithEthernet, CountsADeprecatedAddress) {
    wan.LinkSeen(CELL_UP);
    wan.RoutersAre({3});
    Address address = Ipv6(3, "2001:db8:12::a");
    wan.AddressSeen(address);
    address.deprecated = true;
    EXPECT_EQ(wan.AddressSeen(address), Events{});
}

TEST_F(AGatewayWithEthernet, TellsNothingWhenOnlyTheFamilyChanges) {
    EXPECT_EQ(wan.RoutersAre({2}), Events{});
    EXPECT_EQ(wan.AddressSeen(Ipv6(2, "2001:db8:11::a")), Events{});
    EXPECT_EQ(wan.AddressGone(Ip(2, "10.11.0.2")), Events{});
    EXPECT_EQ(wan.AddressSeen(Ip(2, "10.11.0.2")), Events{});
    EXPECT_EQ(wan.RoutersAre({}), Events{});
    EXPECT_EQ(wan.AddressGone(Ipv6(2, "2001:db8:11::a")), Events{});
}

TEST_F(AGatewayWithEthernet, TellsNothingWhenOnlyThePrefixChanges) {
    wan.Replace({ETH_UP}, {Ipv6(2, "2001:db8:11::a")}, {2});
    EXPECT_EQ(wan.AddressSeen(Tentative(Ipv6(2, "2001:db8:99::a"))), Events{});
    EXPECT_EQ(wan.AddressSeen(Ipv6(2, "2001:db8:99::a")), Events{});
    EXPECT_EQ(wan.AddressGone(Ipv6(2, "2001:db8:11::a")), Events{});
}

TEST_F(AGatewayWithEthernet, FindsTheRouterOfAnInterfaceThatComesLater) {
    wan.RoutersAre({3});
    EXPECT_EQ(wan.LinkSeen(CELL_UP), Events{OrvEvent::CELLULAR_CONNECTED});
    EXPECT_EQ(wan.AddressSeen(Ipv6(3, "2001:db8:12::a")), Events{OrvEvent::CELLULAR_IP_GAINED});
}

TEST_F(AGatewayWithEthernet, CatchesUpWithBothFamilies) {
    EXPECT_EQ(wan.Replace({ETH_UP}, {Ipv6(2, "2001:db8:11::a")}, {2}), Events{});
    EXPECT_EQ(wan.Replace({ETH_UP}, {Ipv6(2, "2001:db8:11::a")}, {}), Events{OrvEvent::ETHERNET_IP_LOST});
}

TEST_F(AGatewayWithEthernet, KnowsWhoseAnAddressIs) {
    wan.AddressSeen(Ipv6(2, "2001:db8:11::a"));
    EXPECT_EQ(wan.OwnerOf("2001:db8:11::a"), "eth0");
    EXPECT_EQ(wan.OwnerOf("10.11.0.2"), "eth0");
    EXPECT_EQ(wan.OwnerOf("10.11.0.9"), "");
    EXPECT_EQ(wan.OwnerOf(""), "");
}

} // namespace
} // namespace GatewayApp
