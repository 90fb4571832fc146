// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "connman/ConnmanClient.h"
#include "connman/SimulatedBus.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <list>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace OrvLab {

/// Threads that ask the connection manager for this and that, at random, while bus and connection manager have moods.
/// At the end both are well again, and what was asked for last must have come true.
class ConnmanProgram final : private BusListener {
public:
    ConnmanProgram(Simulation& simulation, std::uint64_t seed);
    ~ConnmanProgram();
    ConnmanProgram(const ConnmanProgram&) = delete;
    ConnmanProgram& operator=(const ConnmanProgram&) = delete;

    void Run();

    SimulatedBus bus;

private:
    class WatchedCall;
    using Servers = std::vector<std::string>;

    /// An order, from when to when its call lasted.
    struct Order {
        std::string subject; // empty: the top; otherwise the interface whose servers are meant
        std::string interfaceName;
        Servers servers;
        Time begun;
        std::uint64_t began; // numbers of events: calls overlap when they do
        std::uint64_t ended;
        bool accepted;
    };

    void Moved(const std::string& interfaceName) override;
    void Configured(const std::string& interfaceName, const Servers& servers) override;
    void ApplicationThread();
    void BusThread();
    void Act();
    void OrderTop(const std::string& interfaceName);
    void OrderServers(const std::string& interfaceName, const Servers& servers);
    Servers AnyServers();
    std::string AnyInterface();
    void Pause(int most);
    void Collect();
    void CheckOrders();
    void CheckPicture();
    void CheckLastOrders();
    void CheckRestart();
    void CheckIdle();
    void End();

    Simulation& sim;
    Random random;
    std::unique_ptr<OrvPlatform::ConnmanClient> client;
    std::list<WatchedCall*> calls;
    std::vector<Order> orders;
    std::uint64_t events = 0;
    int threadsLeft = 0;
};

} // namespace OrvLab
