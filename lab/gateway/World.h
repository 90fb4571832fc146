// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/Agenda.h"
#include "gateway/Resolver.h"
#include "gateway/ScriptedCloud.h"
#include "gateway/ScriptedKernel.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <functional>
#include <set>
#include <string>

namespace OrvLab {

/// What the programs of the gateway find outside of themselves. One at a time.
struct World {
    World(Simulation& simulation, std::uint64_t seed);
    ~World();
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    static World* Present();
    /// For calls that only a simulated program makes.
    static World& Of(const char* call);

    Simulation& sim;
    Agenda agenda;
    Resolver resolver;
    ScriptedCloud cloud;
    ScriptedKernel kernel;

    /// Files of credentials that cannot be read, once in so many times.
    unsigned faultyFiles = 0;
    Random files;
    std::set<const void*> tlsContexts; // those that live
    int clients = 0;                   // of the MQTT library

    /// Told of what the client says first to whom.
    std::function<void(CloudSocket& socket)> onHello;
    std::function<void(CloudSocket& socket)> onConnect;
    std::function<void(const std::string& address)> onDial;
    /// A connection has not been made, or has been closed by the client.
    std::function<void()> onUndone;
};

} // namespace OrvLab
