// SPDX-License-Identifier: Apache-2.0
#include "GatewayScene.h"

#include "PrivateBus.h"

#include <fstream>
#include <stdlib.h>

namespace OrvTest {

namespace {

const std::string FEATURES = "/orv/apps_control/features/";

/// All that the client of a gateway finds there. Settings are read once in a process, so that all tests share it.
struct Surroundings {
    MosquittoBroker broker;
    PrivateBus bus;
    FakeConnmanProcess connman{bus, "eth0:ready wwan0:ready"};
};

Surroundings& Around() {
    static Surroundings surroundings;
    return surroundings;
}

std::string WriteSettings(const std::string& name) {
    const MosquittoBroker& broker = Around().broker;
    std::string file = broker.Folder() + "/" + name + ".ini";
    std::ofstream(file) << "[broker]\nport = " << broker.Port()
                        << "\n[connman]\nbus_address = " << Around().bus.Address()
                        << "\n[log]\nsink = file\nlevel = trace\nfile = " << broker.Folder() << "/" << name << ".log\n";
    return file;
}

} // namespace

MosquittoBroker& GatewayScene::Broker() {
    return Around().broker;
}

std::string GatewayScene::SettingsOfAnother() {
    return WriteSettings("another");
}

void GatewayScene::SetUpTestSuite() {
    // NOLINTNEXTLINE(concurrency-mt-unsafe): before the first thread
    setenv("ORV_GATEWAY_CONFIG", WriteSettings("tested").c_str(), 1);
}

GatewayScene::GatewayScene() : witness(Broker().Port()), somebody(Broker().Port()) {
    for (const auto& [topic, payload] : RetainedState(Broker().Port(), "/orv/#"))
        Publish(topic, "", true);
    EXPECT_TRUE(witness.Subscribe("/orv/#", 1));
}

void GatewayScene::TearDown() {
    if (client)
        client->DeInit();
}

void GatewayScene::Begin(const std::string& name) {
    client = OrvStackSdk::CreateClient();
    client->SetHandler(application);
    client->Init(name);
    client->Start();
    client->AppStatusRequest(OrvStackSdk::AppStatus::READY);
    while (Seen(FEATURES + name + "/init") == "booting") {
    }
}

std::string GatewayScene::Seen(const std::string& topic) {
    const auto message = witness.NextMessageOn(topic);
    return message ? message->payload : "(nothing)";
}

std::string GatewayScene::Retained(const std::string& topic) {
    const auto state = RetainedState(Broker().Port(), topic);
    const auto found = state.find(topic);
    return found == state.end() ? "(nothing)" : found->second;
}

void GatewayScene::Publish(const std::string& topic, const std::string& payload, bool retained) {
    EXPECT_TRUE(somebody.Publish({topic, payload, 1, retained, false, 0}));
}

} // namespace OrvTest
