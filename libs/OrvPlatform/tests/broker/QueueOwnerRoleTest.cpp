// SPDX-License-Identifier: Apache-2.0
// What a client may publish where one program alone speaks for the gateway.
#include "BrokerFixture.h"
#include "CountedNew.h"

namespace OrvTest {

using QUILMQTT::QueueOwner;

class AProgramBesideTheController : public RealBrokerTest {
protected:
    AProgramBesideTheController() {
        TestConfig().program = "other";
        TestConfig().gateway.controller = "controller";
    }

    static constexpr const char* LED = "/orv/led/connected_services_green";
    static constexpr const char* OWN = "/orv/apps_control/features/other/available";
};

TEST_F(AProgramBesideTheController, PublishesWhatIsItsOwn) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(client.PublishRetainedMessage(OWN, "true", true), 0);
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_EQ(Retained(OWN), "true");
}

TEST_F(AProgramBesideTheController, PublishesNothingForTheGatewayAndBelievesThatItDid) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    for (const char* topic : {LED, "/orv/led/connected_services_yellow", "/orv/apps_control/features/Ent/status/EntCon",
                              "/orv/apps_control/features/Ent/status/NoExtNet", "/orv/network/wan/inhibit_dns"}) {
        EXPECT_EQ(client.PublishRetainedMessage(topic, "x", true), 0);
        EXPECT_EQ(client.PublishMessage(topic, "x", false), 0);
        EXPECT_EQ(Logged(std::string("log debug QueueOwner \"client: ") + topic +
                         " is left to the gateway's controller, nothing is published\""),
                  2U);
    }
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_EQ(RetainedState(broker.Port(), "/orv/#").size(), 0U);
}

TEST_F(AProgramBesideTheController, BelievesItWithoutAConnectionToo) {
    TestClient client;
    EXPECT_EQ(client.PublishRetainedMessage(LED, "On", false), 0);
    EXPECT_EQ(client.PublishRetainedMessage(OWN, "true", false), QueueOwner::NOT_CONNECTED);
}

#ifndef ORV_ALLOCATIONS_NOT_COUNTED
TEST_F(AProgramBesideTheController, BelievesItWhenThereIsNoMemoryToSayOtherwise) {
    TestClient client;
    const std::string topic = LED;
    const std::string payload = "On";
    int failures = 0;
    for (int allocation = 1; allocation <= 10; ++allocation) {
        FailAllocation(allocation);
        EXPECT_NO_THROW(EXPECT_EQ(client.PublishRetainedMessage(topic, payload, false), 0)) << allocation;
        failures += HasFailedAllocation() ? 1 : 0;
        FailAllocation(0);
    }
    EXPECT_GT(failures, 0);
}
#endif

TEST_F(AProgramBesideTheController, AnnouncesNothingOfItAfterAReconnection) {
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(client.PublishRetainedMessage(LED, "On", true), 0);
    EXPECT_EQ(client.PublishRetainedMessage(OWN, "true", true), 0);
    ASSERT_TRUE(IsUpToDate(client));
    broker.Restart();
    ASSERT_TRUE(WaitUntil([&] { return client.Connects() == 2; }));
    EXPECT_TRUE(WaitUntil([&] { return Retained(OWN) == "true"; }));
    EXPECT_EQ(Retained(LED), "(nothing)");
    EXPECT_EQ(Logged("and 1 announcements made again"), 1U);
}

TEST_F(AProgramBesideTheController, LeavesNoWillForTheGateway) {
    for (const char* topic : {LED, OWN}) {
        TestClient client(FreshId("client"));
        ASSERT_TRUE(client.Connect(topic, "Off", true));
    }
    EXPECT_TRUE(WaitUntil([&] { return Retained(OWN) == "Off"; }));
    EXPECT_EQ(Retained(LED), "(nothing)");
}

TEST_F(AProgramBesideTheController, LearnsFromTheSettingsWhichTopicsAreTheGateways) {
    TestConfig().gateway.topics = {"/mine/#"};
    TestClient client;
    ASSERT_TRUE(client.Connect());
    EXPECT_EQ(client.PublishRetainedMessage(LED, "On", true), 0);
    EXPECT_EQ(client.PublishRetainedMessage("/mine/own", "x", true), 0);
    ASSERT_TRUE(IsUpToDate(client));
    EXPECT_EQ(Retained(LED), "On");
    EXPECT_EQ(Retained("/mine/own"), "(nothing)");
}

TEST_F(AProgramBesideTheController, SpeaksForTheGatewayWhereNobodyIsNamedOrItself) {
    for (const char* controller : {"", "other"}) {
        TestConfig().gateway.controller = controller;
        TestClient client(FreshId("client"));
        ASSERT_TRUE(client.Connect());
        EXPECT_EQ(client.PublishRetainedMessage(LED, std::string("by ") + controller, true), 0);
        ASSERT_TRUE(IsUpToDate(client));
        EXPECT_EQ(Retained(LED), std::string("by ") + controller);
    }
}

} // namespace OrvTest
