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
    /// The client has heard that the broker takes it.
    std::function<void(CloudSocket& socket)> onConnack;
    /// And that connection is closed.
    std::function<void(const CloudSocket& socket)> onClosed;
    /// The client says good-bye.
    std::function<void()> onDisconnect;

    /// What a connection that is bound to an interface comes to.
    struct Proof {
        Time duration = 0;
        bool named = true;    // its name is found
        std::string source{}; // empty: there is no route
        bool good = true;     // TLS
    };
    std::function<Proof(const std::string& interface)> prove;
    /// A signal is taken.
    std::function<void(int number)> onSignal;
    /// The options are about to be read anew.
    std::function<void()> onReload;
    /// What is told to the service manager.
    std::function<void(const std::string& message)> onNotify;

    /// What gateway.ini names to prove a path with.
    std::string endpoint;
};

} // namespace OrvLab
