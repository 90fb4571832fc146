// SPDX-License-Identifier: Apache-2.0
// An application on the whole library, from CreateClient to the broker's wire and back, on the test kit that
// applications' own tests link: what is true of the kit is true of the library's own tests.
#include "KitScene.h"

#include <stdexcept>

using namespace OrvStackSdk;
using namespace OrvStackSdk::Testing;

namespace {

class AnApplication : public ::testing::Test {
protected:
    static GatewayOptions WithEveryRecord() {
        GatewayOptions options;
        options.logRecords = LogRecords::FROM_TRACE;
        return options;
    }

    void Begin(const std::string& name) {
        client = CreateClient();
        client->SetHandler(listener);
        client->Init(name);
        client->Start();
        gateway.Settle();
        Forget();
    }

    void Forget() {
        gateway.journal.Clear();
        listener->heard.clear();
    }

    /// The callbacks that a message of another program leads to.
    Lines CallbacksFor(const std::string& topic, const std::string& payload) {
        Forget();
        gateway.broker.Publish(topic, payload);
        return listener->heard;
    }

    Gateway gateway{WithEveryRecord()};
    std::shared_ptr<Listener> listener = std::make_shared<Listener>();
    std::shared_ptr<IOrvStackClient> client;
};

TEST_F(AnApplication, MakesAClientThatIsTheSessionsHandler) {
    client = CreateClient();
    EXPECT_EQ("", Difference("wrapper trace OrvStackClient:30 <std::shared_ptr<OrvStackSdk::IOrvStackClient> "
                             "OrvStackSdk::CreateClient()> \"OrvStackSdk::CreateClient()\"\n"
                             "log trace OrvSessionMqtt <OrvSessionMqtt> \"\"\n"
                             "connman top eth0\n"
                             "connect OrvRoute\n"
                             "file new_enterprise_statuses.csv \"\\\"Enterprise Feature\\\",\\\"Disabled\\\"\\n"
                             "\\\"Cloud Connection\\\",\\\"Down\\\"\\n\\\"Ethernet\\\",\\\"Down\\\"\\n"
                             "\\\"Cellular\\\",\\\"Down\\\"\"\n"
                             "log trace OrvStackClient <OrvStackClient> \"\"\n"
                             "log trace OrvSessionMqtt <SetHandler> \"\"\n",
                             gateway.journal.Text()));
    EXPECT_EQ(client.use_count(), 1);
}

TEST_F(AnApplication, MakesNoClientWithoutABroker) {
    gateway.broker.RefuseConnections(true);
    EXPECT_THROW(CreateClient(), std::runtime_error);
    gateway.broker.RefuseConnections(false);
    EXPECT_NE(CreateClient(), nullptr);
}

TEST_F(AnApplication, LetsGoOfEverythingWithItsLastPointer) {
    Begin("alarm");
    client.reset();
    EXPECT_EQ("", Difference("log trace OrvStackClient <~OrvStackClient> \"\"\n"
                             "disconnect OrvRoute\n"
                             "log trace OrvSessionMqtt <~OrvSessionMqtt> \"\"\n"
                             "will ORV_Stack \"/orv/apps_control/features/alarm/available\" \"false\"\n",
                             gateway.journal.Text()));
    EXPECT_FALSE(gateway.broker.IsConnected());
}

TEST_F(AnApplication, IsAnnouncedOnTheWire) {
    client = CreateClient();
    client->SetHandler(listener);
    listener->then = [&] { gateway.journal.Note("callback"); };
    gateway.journal.Clear();
    client->Init("alarm");
    client->Start();
    client->AppStatusRequest(AppStatus::READY);
    EXPECT_EQ(listener->heard, Lines{"init ACK"});
    EXPECT_EQ("", Difference("connect ORV_Stack will \"/orv/apps_control/features/alarm/available\" \"false\" "
                             "retained\n"
                             "callback\n"
                             "publish retained ORV_Stack \"/orv/apps_control/features/Ent/status/EntCon\" \"false\"\n"
                             "publish ORV_Stack \"/orv/apps_control/features/alarm/available\" \"true\"\n"
                             "publish ORV_Stack \"/orv/apps_control/features/alarm/init\" \"booting\"\n"
                             "publish ORV_Stack \"/orv/apps_control/features/alarm/init\" \"ready\"\n",
                             gateway.journal.Text({"connect", "publish", "callback"})));
}

TEST_F(AnApplication, IsToldThatTheBrokerCannotBeReached) {
    client = CreateClient();
    client->SetHandler(listener);
    gateway.broker.RefuseConnections(true);
    client->Init("alarm");
    gateway.broker.RefuseConnections(false);
    client->Init("alarm");
    EXPECT_EQ(listener->heard, (Lines{"init NACK", "init ACK"}));
}

TEST_F(AnApplication, ReloadsOnlyWhenItHasBooted) {
    Begin("alarm");
    EXPECT_EQ(CallbacksFor(FEATURES + "alarm/init", "reload"), Lines{});
    client->AppStatusRequest(AppStatus::READY);
    EXPECT_EQ(CallbacksFor(FEATURES + "alarm/init", "reload"), Lines{"RELOAD"});
}

TEST_F(AnApplication, HearsOfPanelModemAndShutdown) {
    Begin("alarm");
    EXPECT_EQ(CallbacksFor("/orv/panel/guid", "4711"), Lines{"panel 4711"});
    EXPECT_EQ(CallbacksFor("/orv/panel/connection_status", "UP"), Lines{"panel up"});
    EXPECT_EQ(CallbacksFor("/orv/modem/sim/iccid", "8949"), Lines{"ICCID 8949"});
    EXPECT_EQ(CallbacksFor(FEATURES + "shutdown_readiness/door", "ready"), Lines{"door ready"});
}

TEST_F(AnApplication, HearsNothingOfAvailabilitySupportAndStates) {
    Begin("alarm");
    for (const char* feature : {"alarm", "door"}) {
        EXPECT_EQ(CallbacksFor(FEATURES + feature + "/available", "true"), Lines{});
        EXPECT_EQ(CallbacksFor(FEATURES + feature + "/supported", "true"), Lines{});
        EXPECT_EQ(CallbacksFor(FEATURES + feature + "/init", "ready"), Lines{});
    }
}

TEST_F(AnApplication, MayCallTheClientFromInsideACallback) {
    Begin("alarm");
    client->AppStatusRequest(AppStatus::READY);
    gateway.Settle();
    listener->then = [&] { client->AppStatusRequest(AppStatus::BOOTING); };
    EXPECT_EQ(CallbacksFor(FEATURES + "alarm/init", "reload"), Lines{"RELOAD"});
    EXPECT_EQ(CallbacksFor(FEATURES + "alarm/init", "reload"), Lines{}) << "it is booting";
}

TEST_F(AnApplication, MayReleaseTheClientInsideACallback) {
    for (const auto& topic :
         {std::string("/orv/panel/guid"), std::string("/orv/modem/imei"), std::string("/orv/panel/connection_status"),
          FEATURES + "alarm/init", FEATURES + "shutdown_readiness/door"}) {
        listener->then = nullptr;
        Begin("alarm");
        client->AppStatusRequest(AppStatus::READY);
        gateway.Settle();
        listener->then = [&] { client.reset(); };
        // Two messages wait at the same time.
        gateway.After(0ms, [&] {
            gateway.broker.SetLatency(1ms);
            gateway.broker.Publish(topic, "reload");
            gateway.broker.Publish(topic, "reload");
        });
        gateway.Advance(1ms);
        EXPECT_EQ(listener->heard.size(), 1U) << "the second message found a client";
        EXPECT_FALSE(gateway.broker.IsConnected());
        gateway.broker.SetLatency(0ms);
    }
}

TEST_F(AnApplication, MayReleaseTheClientInsideTheConfirmation) {
    for (const bool refuse : {false, true}) {
        gateway.broker.RefuseConnections(false);
        client = CreateClient();
        client->SetHandler(listener);
        listener->then = [&] { client.reset(); };
        gateway.broker.RefuseConnections(refuse);
        client->Init("alarm");
        EXPECT_EQ(client, nullptr);
        EXPECT_FALSE(gateway.broker.IsConnected());
    }
}

TEST_F(AnApplication, MayLeaveTheBrokerInsideACallback) {
    Begin("alarm");
    listener->then = [&] { client->DeInit(); };
    gateway.broker.SetLatency(1ms);
    gateway.broker.Publish("/orv/panel/guid", "1");
    gateway.broker.Publish("/orv/panel/guid", "2");
    gateway.Advance(1ms);
    EXPECT_EQ(listener->heard, Lines{"panel 1"});
}

TEST_F(AnApplication, MayHaveTwoClientsThatKnowNothingOfEachOther) {
    Begin("alarm");
    const auto secondListener = std::make_shared<Listener>();
    const auto second = CreateClient();
    second->SetHandler(secondListener);
    second->Init("door");
    gateway.Settle();
    Forget();
    secondListener->heard.clear();
    client->AppActionRequest("door", AppAction::RELOAD);
    gateway.Settle();
    EXPECT_EQ(listener->heard, Lines{});
    EXPECT_EQ(secondListener->heard, Lines{"RELOAD"});
    client.reset();
    secondListener->heard.clear();
    EXPECT_EQ(CallbacksFor("/orv/panel/guid", "1"), Lines{});
    EXPECT_EQ(secondListener->heard, Lines{"panel 1"});
}

TEST_F(AnApplication, ReconnectsOnceWhenTheRouteIsBackOnEthernet) {
    Begin("alarm");
    const auto tick = [&] { client->Tick(100ms); };
    tick();
    client->EventUpdateRequest(OrvEvent::CELLULAR_IP_GAINED);
    client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
    tick(); // the cloud has come back over Cellular by itself
    client->EventUpdateRequest(OrvEvent::ETHERNET_IP_GAINED);
    tick(); // begins the poke over Ethernet
    tick(); // and moves the route
    EXPECT_FALSE(client->CloudReconnectNeeded());
    tick();
    EXPECT_TRUE(client->CloudReconnectNeeded());
    EXPECT_FALSE(client->CloudReconnectNeeded());
}

} // namespace
