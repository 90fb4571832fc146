// SPDX-License-Identifier: Apache-2.0
#include "connman/PendingOrders.h"

#include <gtest/gtest.h>

namespace OrvPlatform {
namespace {

using Texts = std::vector<std::string>;
using Kind = ConnmanCall::Kind;

ConnmanServiceUpdate Update(const std::string& interfaceName, const std::string& state) {
    return {"/" + interfaceName, interfaceName, state, false, Texts{"192.0.2.53"}, Texts{}};
}

class OrdersForTwoConnectedServices : public testing::Test {
protected:
    OrdersForTwoConnectedServices() { services.Replace({Update("eth0", "online"), Update("wwan0", "ready")}); }

    ConnmanCall Next() { return wanted.Next(services, remarks); }

    ConnmanServices services;
    PendingOrders wanted;
    Texts remarks;
};

TEST_F(OrdersForTwoConnectedServices, AreNoneAtFirst) {
    EXPECT_EQ(Next().kind, Kind::NONE);
}

TEST_F(OrdersForTwoConnectedServices, MoveTheServiceBeforeTheFirst) {
    wanted.OrderTop("wwan0");
    const ConnmanCall step = Next();
    EXPECT_EQ(step.kind, Kind::MOVE);
    EXPECT_EQ(step.path, "/wwan0");
    EXPECT_EQ(step.before, "/eth0");
}

TEST_F(OrdersForTwoConnectedServices, AreForgottenWhenTheyAreFulfilledAlready) {
    wanted.OrderTop("eth0");
    EXPECT_EQ(Next().kind, Kind::NONE);
    EXPECT_FALSE(wanted.HasTop());
    EXPECT_TRUE(remarks.empty());
}

TEST_F(OrdersForTwoConnectedServices, AreNotGivenAgainWhenTheOrderChangesByItself) {
    wanted.OrderTop("wwan0");
    wanted.Done(Next());
    EXPECT_EQ(Next().kind, Kind::NONE);
}

TEST_F(OrdersForTwoConnectedServices, CountOnlyAsFarAsTheyAreTheLatest) {
    wanted.OrderTop("wwan0");
    wanted.OrderServers("wwan0", {"none"});
    wanted.OrderServers("wwan0", {"198.51.100.1"});
    wanted.OrderTop("eth0");
    const ConnmanCall step = Next();
    EXPECT_EQ(step.kind, Kind::SET_SERVERS);
    EXPECT_EQ(step.servers, Texts{"198.51.100.1"});
    wanted.Done(step);
    EXPECT_EQ(Next().kind, Kind::NONE);
}

TEST_F(OrdersForTwoConnectedServices, AreCarriedOutInTheirOrder) {
    wanted.OrderServers("wwan0", {"none"});
    wanted.OrderTop("wwan0");
    ConnmanCall step = Next();
    EXPECT_EQ(step.kind, Kind::SET_SERVERS);
    wanted.Done(step);
    EXPECT_EQ(Next().kind, Kind::MOVE);
}

TEST_F(OrdersForTwoConnectedServices, SurviveTheEndOfAnOlderOne) {
    wanted.OrderTop("wwan0");
    const ConnmanCall older = Next();
    wanted.OrderTop("eth0");
    wanted.Done(older);
    services.Replace({Update("wwan0", "ready"), Update("eth0", "online")});
    EXPECT_EQ(Next().path, "/eth0");
}

TEST_F(OrdersForTwoConnectedServices, RestAfterARefusalUntilThereIsNews) {
    wanted.OrderTop("wwan0");
    EXPECT_EQ(wanted.Refused(Next(), "InvalidService"), "cannot put wwan0 on top now: InvalidService");
    EXPECT_EQ(Next().kind, Kind::NONE);
    wanted.Retry();
    EXPECT_EQ(wanted.Refused(Next(), "InvalidService"), "");
    wanted.OrderTop("wwan0");
    EXPECT_EQ(Next().kind, Kind::MOVE);
}

TEST_F(OrdersForTwoConnectedServices, AreNotGivenForAServiceWithoutAnAddress) {
    for (const std::string state : {"idle", "failure", "association", "configuration", "disconnect"}) {
        services.Update({"/wwan0", {}, state, {}, {}, {}});
        wanted.OrderTop("wwan0");
        EXPECT_EQ(Next().kind, Kind::NONE) << state;
    }
    EXPECT_EQ(remarks.size(), 5U);
    services.Update({"/wwan0", {}, "ready", {}, {}, {}});
    EXPECT_EQ(Next().kind, Kind::MOVE);
}

TEST_F(OrdersForTwoConnectedServices, AreRemarkedOnceWhenTheInterfaceHasNoService) {
    wanted.OrderTop("ppp0");
    Next();
    wanted.OrderTop("ppp0");
    Next();
    EXPECT_EQ(remarks,
              Texts{"cannot put ppp0 on top now: there is no service on this interface (cable or modem out?)"});
}

TEST_F(OrdersForTwoConnectedServices, LeaveAProvisionedServicesServersAlone) {
    services.Update({"/wwan0", {}, {}, true, {}, {}});
    wanted.OrderServers("wwan0", {"none"});
    EXPECT_EQ(Next().kind, Kind::NONE);
    EXPECT_EQ(remarks.size(), 1U);
}

TEST_F(OrdersForTwoConnectedServices, DoNotConfigureWhatIsSoAlready) {
    wanted.OrderServers("eth0", {});
    services.Update({"/wwan0", {}, {}, {}, Texts{"198.51.100.1"}, Texts{"198.51.100.1"}});
    wanted.OrderServers("wwan0", {"198.51.100.1"});
    EXPECT_EQ(Next().kind, Kind::NONE);
}

TEST_F(OrdersForTwoConnectedServices, TellNoServersFromTheNetworksOwnByWhatWasWritten) {
    services.Update({"/wwan0", {}, {}, {}, Texts{}, {}});
    wanted.OrderServers("wwan0", {NO_SERVERS});
    ConnmanCall step = Next();
    ASSERT_EQ(step.kind, Kind::SET_SERVERS);
    services.NoteWritten(step.path, step.servers);
    EXPECT_EQ(Next().kind, Kind::NONE);
    wanted.OrderServers("wwan0", {});
    EXPECT_EQ(Next().kind, Kind::SET_SERVERS);
}

TEST(ConnmanServicesOrder, NeedsANewListWhenAnUnknownServiceComesWithoutProperties) {
    ConnmanServices services;
    services.Replace({Update("eth0", "online")});
    EXPECT_FALSE(services.Reorder({{"/wwan0", {}, {}, {}, {}, {}}, {"/eth0", {}, {}, {}, {}, {}}}, {}));
    EXPECT_EQ(services.TopInterface(), "");
}

TEST(ConnmanServicesOrder, NeedsANewListWhenAServiceIsNeitherNamedNorRemoved) {
    ConnmanServices services;
    services.Replace({Update("eth0", "online"), Update("wwan0", "ready")});
    EXPECT_FALSE(services.Reorder({{"/wwan0", {}, {}, {}, {}, {}}}, {}));
    EXPECT_EQ(services.TopInterface(), "wwan0");
}

TEST(ConnmanServicesOrder, HasNoTopInterfaceWhileTheFirstServiceIsNotConnected) {
    ConnmanServices services;
    EXPECT_EQ(services.TopInterface(), "");
    services.Replace({Update("eth0", "configuration"), Update("wwan0", "ready")});
    EXPECT_EQ(services.TopInterface(), "");
    services.Update({"/eth0", {}, "ready", {}, {}, {}});
    EXPECT_EQ(services.TopInterface(), "eth0");
}

TEST(ConnmanServicesOfAnInterface, AreLedByAConnectedOne) {
    ConnmanServices services;
    services.Replace({{"/a", "wlan0", "idle", false, {}, {}}, {"/b", "wlan0", "ready", false, {}, {}}});
    ASSERT_NE(services.Of("wlan0"), nullptr);
    EXPECT_EQ(services.Of("wlan0")->path, "/b");
    EXPECT_EQ(services.Of("eth0"), nullptr);
}

} // namespace
} // namespace OrvPlatform
