// SPDX-License-Identifier: Apache-2.0
// Calls of several threads on one connection that once held each other up, in many orders. LabClient watches how long
// each call waits.
#include "broker/Program.h"
#include "sim/Simulation.h"

#include <functional>
#include <vector>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

constexpr std::uint64_t SEEDS = 1500;
using Body = std::function<void(LabClient& client)>;

/// Fails by ending the process: the seed and what is wrong stand on standard error.
void RunTogether(const std::vector<Body>& bodies, ScriptedBroker::Behaviour behaviour,
                 const std::function<void(LabClient& client)>& inCallbacks = {}) {
    for (std::uint64_t seed = 0; seed < SEEDS; ++seed) {
        Simulation simulation(seed, false);
        Program program(simulation, seed);
        program.broker.SetBehaviour(behaviour);
        program.inCallbacks = inCallbacks;
        simulation.Run([&] { program.RunTogether(bodies); });
    }
}

void ConnectTwice(LabClient& client) {
    client.ConnectAsked(false);
    client.ConnectAsked(true);
}

} // namespace

TEST(ADisconnect, IsNotHeldUpByAnotherThreadThatConnects) {
    RunTogether({ConnectTwice,
                 [](LabClient& client) {
                     client.ConnectAsked(false);
                     client.DisconnectAsked();
                 }},
                ScriptedBroker::Behaviour::HEALTHY);
}

TEST(AConnect, EndsWhenAnotherThreadsHasTakenItsPlace) {
    int connects = 0;
    RunTogether({[&](LabClient& client) {
                     connects = 0;
                     ConnectTwice(client);
                 },
                 ConnectTwice},
                ScriptedBroker::Behaviour::FLAKY, [&](LabClient& client) {
                    if (++connects < 4)
                        client.ConnectAsked(false);
                });
}

} // namespace OrvLab
