// SPDX-License-Identifier: Apache-2.0
// What the explorer demands, broken on purpose.
#include "QuilMqtt/QueueOwner.h"
#include "broker/FakeMosquitto.h"
#include "broker/Model.h"
#include "broker/OutstandingPublications.h"
#include "broker/ScriptedBroker.h"
#include "broker/Wire.h"
#include "sim/Simulation.h"

#include <functional>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

void RunAll(const std::function<void(Simulation&)>& program) {
    for (std::uint64_t seed = 0; seed < 30; ++seed) {
        Simulation simulation(seed, false);
        ScriptedBroker broker(simulation, seed);
        Wire::Reset();
        Wire::broker = &broker;
        Wire::onPublish = nullptr;
        Wire::isAttended = [](const std::string&) { return true; };
        simulation.SetSurroundings(&broker);
        simulation.SetJumpListener(Wire::Jumped);
        simulation.Run([&] { program(simulation); });
    }
    Wire::broker = nullptr;
}

void Fails(const std::function<void(Simulation&)>& program, const char* text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAll(program), testing::ExitedWithCode(Simulation::FAILED), text);
}

/// A client of the library that is connected.
mosquitto* Connected(Simulation& simulation) {
    mosquitto* client = mosquitto_new("c1", true, nullptr);
    mosquitto_publish_callback_set(client, [](mosquitto*, void*, int) {});
    mosquitto_connect_async(client, "127.0.0.1", 1883, 5);
    mosquitto_loop_write(client, 1);
    while (!client->connection->Waiting())
        simulation.Sleep(MILLISECOND);
    mosquitto_loop_read(client, 1);
    return client;
}

void PublishAndWait(Simulation& simulation, bool writes) {
    mosquitto* client = Connected(simulation);
    int id = 0;
    mosquitto_publish(client, &id, "topic", 0, "", 0, false);
    if (writes)
        mosquitto_loop_write(client, 1);
    simulation.Sleep(SECOND);
    mosquitto_destroy(client);
}

void CallOnConnect(Model& model, int connections) {
    for (; connections > 0; --connections) {
        model.BeginCallback("OnConnect");
        model.Connected();
        model.EndCallback();
    }
}

void ConnectWithCallbacks(Simulation& simulation, int connections) {
    Model model(simulation, 1, 1000);
    model.BeginConnect("");
    mosquitto* client = Connected(simulation);
    model.EndConnect(true);
    simulation.Sleep(SECOND);
    CallOnConnect(model, connections);
    model.CheckSettled(*Wire::broker);
    mosquitto_destroy(client);
}

void AnswerAPublication(Simulation& simulation, std::size_t most, int status) {
    Model model(simulation, 1, most);
    model.EndPublish(model.BeginPublish("w1", "payload", true, false), status);
}

} // namespace

TEST(AnInvariant, DemandsThatExactlyWhatCanNeverFitInIsRefusedAsTooLarge) {
    const std::size_t justFits = OrvPlatform::OutstandingPublications::Cost("w1", "payload");
    constexpr int TOO_LARGE = QUILMQTT::QueueOwner::PAYLOAD_TOO_LARGE;
    constexpr int HANDED_OVER = QUILMQTT::QueueOwner::HANDED_OVER;
    Fails([=](Simulation& simulation) { AnswerAPublication(simulation, justFits, TOO_LARGE); }, "for 7 bytes on w1");
    Fails([=](Simulation& simulation) { AnswerAPublication(simulation, justFits - 1, HANDED_OVER); },
          "for 7 bytes on w1");
    RunAll([=](Simulation& simulation) {
        AnswerAPublication(simulation, justFits, HANDED_OVER);
        AnswerAPublication(simulation, justFits - 1, TOO_LARGE);
    });
}

TEST(AnInvariant, LetsNoPacketWaitThatTheSocketTakes) {
    Fails([](Simulation& simulation) { PublishAndWait(simulation, false); },
          "a packet waits though the socket takes it");
    RunAll([](Simulation& simulation) { PublishAndWait(simulation, true); });
}

TEST(AnInvariant, LetsNoPacketLieUnread) {
    Fails(
        [](Simulation& simulation) {
            mosquitto* client = Connected(simulation);
            int id = 0;
            mosquitto_publish(client, &id, "topic", 0, "", 1, false);
            mosquitto_loop_write(client, 1);
            simulation.Sleep(5 * SECOND);
        },
        "has arrived and is not read");
}

TEST(AnInvariant, DemandsOnConnectOnceForEachConnection) {
    Fails([](Simulation& simulation) { ConnectWithCallbacks(simulation, 2); }, "OnConnect 2 times for 1 connections");
    Fails([](Simulation& simulation) { ConnectWithCallbacks(simulation, 0); },
          "OnConnect 0 to 0 times for 1 connections");
    RunAll([](Simulation& simulation) { ConnectWithCallbacks(simulation, 1); });
}

} // namespace OrvLab
