// SPDX-License-Identifier: Apache-2.0
// An application on the whole library, from CreateClient to the broker's wire and back.
#include "ClientScene.h"
#include "OrvStackSdk/OrvStackSdk.h"
#include "SessionScene.h"

#include <stdexcept>

using namespace OrvStackSdk;
using namespace OrvStackSdk::Testing;

namespace {

const std::string FEATURES = "/orv/apps_control/features/";

const Entries MADE{
    Entry::Wrapper(0, false, "OrvStackClient", 30,
                   "std::shared_ptr<OrvStackSdk::IOrvStackClient> OrvStackSdk::CreateClient()",
                   "OrvStackSdk::CreateClient()"),
    SessionTrace("OrvSessionMqtt"),
    Entry::TopPriority("eth0"),
    Entry::Connect("OrvRoute"),
    ClientTrace("OrvStackClient"),
    SessionTrace("SetHandler"),
};

class AnApplication : public ::testing::Test {
protected:
    AnApplication() { OrvPlatformFake::FakeGateway::Reset(); }

    void Begin(const std::string& name) {
        client = CreateClient();
        client->SetHandler(handler);
        client->Init(name);
        client->Start();
        FakeBroker::Get().Deliver();
        Journal::Clear();
    }

    /// The callbacks that a message of another program leads to.
    Entries CallbacksFor(const std::string& topic, const std::string& payload) {
        Journal::Clear();
        FakeBroker::Get().Inject(topic, payload);
        FakeBroker::Get().Deliver();
        return Only(Journal::Take(), {"callback"});
    }

    std::shared_ptr<RecordingHandler> handler = std::make_shared<RecordingHandler>();
    std::shared_ptr<IOrvStackClient> client;
};

TEST_F(AnApplication, MakesAClientThatIsTheSessionsHandler) {
    client = CreateClient();
    EXPECT_EQ(Journal::Take(), MADE);
    EXPECT_EQ(client.use_count(), 1);
}

TEST_F(AnApplication, MakesNoClientWithoutABroker) {
    FakeBroker::Get().SetReachable(false);
    EXPECT_THROW(CreateClient(), std::runtime_error);
    FakeBroker::Get().SetReachable(true);
    EXPECT_NE(CreateClient(), nullptr);
}

TEST_F(AnApplication, LetsGoOfEverythingWithItsLastPointer) {
    Begin("alarm");
    client.reset();
    EXPECT_EQ(Journal::Take(),
              (Entries{ClientTrace("~OrvStackClient"), Entry::StopDelivery("OrvRoute"), Entry::Disconnect("OrvRoute"),
                       Entry::StopDelivery("ORV_Stack"), SessionTrace("~OrvSessionMqtt"),
                       Entry::Will("ORV_Stack", FEATURES + "alarm/available", "false")}));
    EXPECT_FALSE(FakeBroker::Get().IsConnected("ORV_Stack"));
    EXPECT_FALSE(FakeBroker::Get().IsConnected("OrvRoute"));
}

TEST_F(AnApplication, IsAnnouncedOnTheWire) {
    client = CreateClient();
    client->SetHandler(handler);
    Journal::Clear();
    client->Init("alarm");
    client->Start();
    client->AppStatusRequest(AppStatus::READY);
    EXPECT_EQ(
        Only(Journal::Take(), {"connect", "publish", "callback"}),
        (Entries{Entry::ConnectWithWill("ORV_Stack", FEATURES + "alarm/available", "false", true),
                 "callback OnInitConfirmation(ACK)", SessionPublishRetained(FEATURES + "Ent/status/EntCon", "false"),
                 SessionPublish(FEATURES + "alarm/available", "true"),
                 SessionPublish(FEATURES + "alarm/init", "booting"),
                 SessionPublish(FEATURES + "alarm/init", "ready")}));
}

TEST_F(AnApplication, IsToldThatTheBrokerCannotBeReached) {
    client = CreateClient();
    client->SetHandler(handler);
    FakeBroker::Get().SetReachable(false);
    client->Init("alarm");
    FakeBroker::Get().SetReachable(true);
    client->Init("alarm");
    EXPECT_EQ(Only(Journal::Take(), {"callback"}),
              (Entries{"callback OnInitConfirmation(NACK)", "callback OnInitConfirmation(ACK)"}));
}

TEST_F(AnApplication, ReloadsOnlyWhenItHasBooted) {
    Begin("alarm");
    EXPECT_EQ(CallbacksFor(FEATURES + "alarm/init", "reload"), Entries{});
    client->AppStatusRequest(AppStatus::READY);
    EXPECT_EQ(CallbacksFor(FEATURES + "alarm/init", "reload"), (Entries{"callback OnAppActionIndication(RELOAD)"}));
}

TEST_F(AnApplication, HearsOfPanelModemAndShutdown) {
    Begin("alarm");
    EXPECT_EQ(CallbacksFor("/orv/panel/guid", "4711"), (Entries{"callback OnDeviceProbeIndication(4711)"}));
    EXPECT_EQ(CallbacksFor("/orv/panel/connection_status", "UP"),
              (Entries{"callback OnDeviceOnlineStatusIndication(true)"}));
    EXPECT_EQ(CallbacksFor("/orv/modem/sim/iccid", "8949"),
              (Entries{"callback OnDeviceCellularStatusIndication(ICCID, 8949)"}));
    EXPECT_EQ(CallbacksFor(FEATURES + "shutdown_readiness/door", "ready"),
              (Entries{"callback OnFeatureShutdownReadinessIndication(door, true)"}));
}

TEST_F(AnApplication, HearsNothingOfAvailabilitySupportAndStates) {
    Begin("alarm");
    for (const char* feature : {"alarm", "door"}) {
        EXPECT_EQ(CallbacksFor(FEATURES + feature + "/available", "true"), Entries{});
        EXPECT_EQ(CallbacksFor(FEATURES + feature + "/supported", "true"), Entries{});
        EXPECT_EQ(CallbacksFor(FEATURES + feature + "/init", "ready"), Entries{});
    }
}

TEST_F(AnApplication, MayCallTheClientFromInsideACallback) {
    Begin("alarm");
    client->AppStatusRequest(AppStatus::READY);
    handler->then = [&](const std::string& line) {
        if (line == "callback OnAppActionIndication(RELOAD)")
            client->AppStatusRequest(AppStatus::BOOTING);
    };
    CallbacksFor(FEATURES + "alarm/init", "reload");
    EXPECT_EQ(CallbacksFor(FEATURES + "alarm/init", "reload"), Entries{});
}

TEST_F(AnApplication, MayReleaseTheClientInsideACallback) {
    for (const char* topic :
         {"/orv/panel/guid", "/orv/modem/imei", "/orv/panel/connection_status", "/orv/apps_control/features/alarm/init",
          "/orv/apps_control/features/shutdown_readiness/door"}) {
        handler->then = nullptr;
        Begin("alarm");
        client->AppStatusRequest(AppStatus::READY);
        FakeBroker::Get().Deliver();
        handler->then = [&](const std::string&) { client.reset(); };
        FakeBroker::Get().Inject(topic, "reload");
        EXPECT_EQ(CallbacksFor(topic, "reload").size(), 1U) << "the second message found a client";
        EXPECT_FALSE(FakeBroker::Get().IsConnected("ORV_Stack"));
    }
}

TEST_F(AnApplication, MayReleaseTheClientInsideTheConfirmation) {
    for (const bool reachable : {true, false}) {
        FakeBroker::Get().SetReachable(true);
        client = CreateClient();
        client->SetHandler(handler);
        handler->then = [&](const std::string&) { client.reset(); };
        FakeBroker::Get().SetReachable(reachable);
        client->Init("alarm");
        EXPECT_EQ(client, nullptr);
        EXPECT_FALSE(FakeBroker::Get().IsConnected("ORV_Stack"));
    }
}

TEST_F(AnApplication, MayLeaveTheBrokerInsideACallback) {
    Begin("alarm");
    handler->then = [&](const std::string&) { client->DeInit(); };
    FakeBroker::Get().Inject("/orv/panel/guid", "1");
    EXPECT_EQ(CallbacksFor("/orv/panel/guid", "2"), (Entries{"callback OnDeviceProbeIndication(1)"}));
}

TEST_F(AnApplication, MayHaveTwoClientsThatKnowNothingOfEachOther) {
    Begin("alarm");
    const auto secondHandler = std::make_shared<RecordingHandler>();
    const auto second = CreateClient();
    second->SetHandler(secondHandler);
    second->Init("door");
    FakeBroker::Get().Deliver();
    Journal::Clear();
    client->AppActionRequest("door", AppAction::RELOAD);
    FakeBroker::Get().Deliver();
    EXPECT_EQ(Only(Journal::Take(), {"callback"}), (Entries{"callback OnAppActionIndication(RELOAD)"}));
    client.reset();
    EXPECT_EQ(CallbacksFor("/orv/panel/guid", "1"), (Entries{"callback OnDeviceProbeIndication(1)"}));
}

} // namespace
