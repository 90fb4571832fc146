// SPDX-License-Identifier: Apache-2.0
#include "GatewayScene.h"

#include <atomic>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace OrvStackSdk;
using namespace OrvTest;

namespace {

const std::string FEATURES = "/orv/apps_control/features/";

class OnARealBroker : public GatewayScene {};

TEST_F(OnARealBroker, AnApplicationAnnouncesItselfInOrder) {
    client = CreateClient();
    client->SetHandler(application);
    client->Init("alarm");
    client->Start();
    client->AppStatusRequest(AppStatus::READY);
    const std::vector<std::pair<std::string, std::string>> announced{
        {FEATURES + "Ent/status/EntCon", "false"},
        {FEATURES + "alarm/available", "true"},
        {FEATURES + "alarm/init", "booting"},
        {FEATURES + "alarm/init", "ready"},
    };
    for (const auto& [topic, payload] : announced) {
        const auto message = witness.NextMessage();
        ASSERT_TRUE(message);
        EXPECT_EQ(message->topic, topic);
        EXPECT_EQ(message->payload, payload);
        EXPECT_EQ(message->qos, 0);
    }
    EXPECT_EQ(application->Count("init ACK"), 1U);
}

TEST_F(OnARealBroker, StatusAndLedsAreRetainedAndNothingElse) {
    Begin("alarm");
    client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
    client->AppStatusRequest(AppStatus::SUPPORTED);
    client->PanelCommandRequest("text", 3);
    client->RequestShutdown();
    client->SendConnectionStatus("up");
    EXPECT_EQ(Seen("/orv/modem/sim/conn_status"), "up");
    EXPECT_EQ(RetainedState(Broker().Port(), "/orv/#"), (std::map<std::string, std::string>{
                                                            {FEATURES + "Ent/status/EntCon", "true"},
                                                            {FEATURES + "Ent/status/NoExtNet", "false"},
                                                            {"/orv/led/connected_services_green", "On"},
                                                            {"/orv/led/connected_services_yellow", "Off"},
                                                        }));
}

TEST_F(OnARealBroker, TheWillSpeaksWhenTheClientGoesWithoutAWord) {
    Begin("alarm");
    client.reset();
    EXPECT_EQ(Seen(FEATURES + "alarm/available"), "false");
    EXPECT_EQ(Retained(FEATURES + "alarm/available"), "false");
}

TEST_F(OnARealBroker, TheWillIsSilentAfterDeInit) {
    Begin("alarm");
    client->DeInit();
    client.reset();
    Publish("/orv/end", "end");
    const auto message = witness.NextMessage();
    ASSERT_TRUE(message);
    EXPECT_EQ(message->topic, "/orv/end") << message->payload;
    EXPECT_EQ(Retained(FEATURES + "alarm/available"), "(nothing)");
}

TEST_F(OnARealBroker, TheWillNamesTheFeatureOfTheLastInit) {
    Begin("alarm");
    Publish("/orv/panel/guid", "quiet now");
    EXPECT_TRUE(application->HasReceived("guid quiet now")); // the name must not change under a message
    client->Init("door");
    client.reset();
    EXPECT_EQ(Seen(FEATURES + "door/available"), "false");
    EXPECT_EQ(Retained(FEATURES + "alarm/available"), "(nothing)");
}

TEST_F(OnARealBroker, AllSubscriptionsAreInForce) {
    Begin("alarm");
    const std::vector<std::array<std::string, 3>> messages{
        {FEATURES + "alarm/init", "enabled", "action ENABLED"},
        {"/orv/panel/guid", "4711", "guid 4711"},
        {"/orv/panel/connection_status", "UP", "online"},
        {"/orv/modem/imei", "1", "IMEI 1"},
        {"/orv/modem/sim/iccid", "2", "ICCID 2"},
        {"/orv/modem/sim/technology", "3", "TECHNOLOGY 3"},
        {"/orv/modem/sim/provider", "4", "PROVIDER 4"},
        {"/orv/modem/sim/strength", "5", "STRENGTH 5"},
        {FEATURES + "shutdown_readiness/door", "ready", "ready door"},
    };
    for (const auto& [topic, payload, line] : messages) {
        Publish(topic, payload);
        EXPECT_TRUE(application->HasReceived(line)) << topic;
    }
}

TEST_F(OnARealBroker, WhatWasRetainedBeforeIsToldAfterTheConfirmation) {
    Publish("/orv/panel/guid", "4711", true);
    Publish(FEATURES + "shutdown_readiness/door", "ready", true);
    std::atomic<bool> confirmedFirst{true};
    application->then = [&](const std::string& line) {
        if (line == "guid 4711" && application->Count("init ACK") == 0)
            confirmedFirst = false;
    };
    Begin("alarm");
    EXPECT_TRUE(application->HasReceived("guid 4711"));
    // Two filters match it, and each brings the retained message.
    EXPECT_TRUE(WaitUntil([&] { return application->Count("ready door") == 2; }));
    EXPECT_TRUE(confirmedFirst);
}

TEST_F(OnARealBroker, AnOrderToOneselfComesBack) {
    Begin("alarm");
    client->AppActionRequest("alarm", AppAction::DISABLED);
    EXPECT_TRUE(application->HasReceived("action DISABLED"));
    EXPECT_EQ(application->Count("status alarm available"), 0U);
}

TEST_F(OnARealBroker, AReloadIsRefusedWhileBooting) {
    Begin("alarm");
    client->AppStatusRequest(AppStatus::BOOTING);
    EXPECT_EQ(Seen(FEATURES + "alarm/init"), "booting");
    Publish(FEATURES + "alarm/init", "reload");
    EXPECT_EQ(Seen(FEATURES + "alarm/init"), "reload");
    EXPECT_EQ(Seen(FEATURES + "alarm/init"), "booting");
    EXPECT_EQ(application->Count("action RELOAD"), 0U);
}

TEST_F(OnARealBroker, ALargePayloadOfAnyBytesArrivesWhole) {
    Begin("alarm");
    std::string payload(1U << 20U, '\0');
    payload.back() = '\xff';
    Publish("/orv/modem/sim/provider", payload);
    EXPECT_TRUE(application->HasReceived("PROVIDER " + payload));
}

TEST_F(OnARealBroker, AnApplicationMayPublishInsideACallback) {
    application->then = [&](const std::string& line) {
        if (line == "guid 4711")
            client->SendConnectionStatus("answer");
    };
    Begin("alarm");
    Publish("/orv/panel/guid", "4711");
    EXPECT_EQ(Seen("/orv/modem/sim/conn_status"), "answer");
}

TEST_F(OnARealBroker, AnApplicationMayReleaseTheClientInsideACallback) {
    std::atomic<bool> released{false};
    application->then = [&](const std::string& line) {
        if (line == "guid 1") {
            client.reset();
            released = true;
        }
    };
    Begin("alarm");
    for (const char* guid : {"1", "2", "3"})
        Publish("/orv/panel/guid", guid);
    EXPECT_TRUE(WaitUntil([&] { return released.load(); }));
    EXPECT_EQ(Seen(FEATURES + "alarm/available"), "false");
    EXPECT_EQ(application->Count("guid 2"), 0U);
}

TEST_F(OnARealBroker, AnApplicationMayReleaseTheClientInsideTheConfirmation) {
    client = CreateClient();
    application->then = [&](const std::string&) { client.reset(); };
    client->SetHandler(application);
    client->Init("alarm");
    EXPECT_EQ(client, nullptr);
    EXPECT_EQ(Seen(FEATURES + "alarm/available"), "false");
}

TEST_F(OnARealBroker, AnApplicationMayLeaveInsideACallback) {
    std::atomic<bool> left{false};
    application->then = [&](const std::string& line) {
        if (line != "guid 1")
            return;
        client->DeInit();
        left = true;
    };
    Begin("alarm");
    Publish("/orv/panel/guid", "1");
    EXPECT_TRUE(WaitUntil([&] { return left.load(); }));
    EXPECT_EQ(Retained(FEATURES + "alarm/available"), "(nothing)");
}

TEST_F(OnARealBroker, AClientMayBeDestroyedWhileMessagesPourIn) {
    std::atomic<bool> enough{false};
    std::thread flood([&] {
        RawClient source(Broker().Port());
        while (!enough)
            for (const char* topic : {"/orv/panel/guid", "/orv/modem/imei", "/orv/panel/connection_status",
                                      "/orv/apps_control/features/alarm/init"})
                source.Publish({topic, "enabled", 1, false, false, 0});
    });
    for (int round = 0; round < 25; ++round) {
        application = std::make_shared<WatchedApplication>();
        client = CreateClient();
        client->SetHandler(application);
        client->Init("alarm");
        client->Start();
        EXPECT_TRUE(application->HasReceived("guid enabled"));
        client.reset();
    }
    enough = true;
    flood.join();
    // Under the id of the last one: when the broker lets it in, it has spoken the last one's will.
    client = CreateClient();
    client->Init("alarm");
}

TEST_F(OnARealBroker, AnApplicationMayGoBeforeItsClient) {
    Begin("alarm");
    application.reset();
    Publish("/orv/panel/guid", "1");
    client->SendConnectionStatus("still here");
    EXPECT_EQ(Seen("/orv/modem/sim/conn_status"), "still here");
}

/// These stop the broker; what they leave is up again.
class WhenTheBrokerFails : public GatewayScene {};

TEST_F(WhenTheBrokerFails, NoClientIsMadeUntilItIsBack) {
    Broker().Kill();
    EXPECT_THROW(CreateClient(), std::runtime_error);
    Broker().Start();
    EXPECT_NE(CreateClient(), nullptr);
}

TEST_F(WhenTheBrokerFails, InitIsAnsweredNackAndCanBeRepeated) {
    client = CreateClient();
    client->SetHandler(application);
    Broker().Kill();
    client->Init("alarm");
    EXPECT_EQ(application->Count("init NACK"), 1U);
    client->Start(); // not sent, not queued, no harm
    Broker().Start();
    client->Init("alarm");
    EXPECT_EQ(application->Count("init ACK"), 1U);
    RawClient publisher(Broker().Port());
    EXPECT_TRUE(publisher.Publish({"/orv/panel/guid", "4711", 1, false, false, 0}));
    EXPECT_TRUE(application->HasReceived("guid 4711"));
}

TEST_F(WhenTheBrokerFails, SubscriptionsAndStateAreRestoredByThemselves) {
    Begin("alarm");
    client->EventUpdateRequest(OrvEvent::CLOUD_CONNECTED);
    Broker().Restart();
    EXPECT_TRUE(WaitUntil([&] { return Retained("/orv/led/connected_services_green") == "On"; }));
    EXPECT_TRUE(WaitUntil([&] { return Retained(FEATURES + "Ent/status/EntCon") == "true"; }));
    RawClient publisher(Broker().Port());
    EXPECT_TRUE(WaitUntil([&] {
        EXPECT_TRUE(publisher.Publish({"/orv/panel/guid", "4711", 1, false, false, 0}));
        return application->Count("guid 4711") != 0;
    }));
}

/// Another application of the gateway, in a process of its own.
class ASecondApplication : public GatewayScene {
protected:
    void Launch() {
        const std::string settings = "ORV_GATEWAY_CONFIG=" + SettingsOfAnother();
        process = fork();
        if (process < 0)
            throw std::runtime_error("cannot fork");
        if (process == 0) {
            execl("/usr/bin/env", "env", settings.c_str(), ORV_NEWCOMER, "door", nullptr);
            _exit(127);
        }
    }

    int ExitStatus() {
        int status = 0;
        waitpid(process, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    pid_t process = 0;
};

TEST_F(ASecondApplication, RunsBesideTheFirstAndTakesItsOrders) {
    Begin("alarm");
    Launch();
    EXPECT_EQ(Seen(FEATURES + "door/available"), "true");
    while (Seen(FEATURES + "door/init") == "booting") {
    }
    client->AppActionRequest("door", AppAction::RELOAD);
    EXPECT_EQ(ExitStatus(), 0);
    EXPECT_EQ(Seen(FEATURES + "door/init"), "reload");
    EXPECT_EQ(Seen(FEATURES + "door/init"), "noerror");
    EXPECT_EQ(application->Count("action RELOAD"), 0U);
    EXPECT_EQ(application->Count("status door ready"), 0U);
    client->AppActionRequest("alarm", AppAction::ENABLED);
    EXPECT_TRUE(application->HasReceived("action ENABLED"));
}

} // namespace
