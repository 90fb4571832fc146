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
    friend struct SettledCourse; // of the tests
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
    static Servers Written(const Servers& servers);
    Servers AnyServers();
    std::string AnyInterface();
    void Pause(int most);
    void Collect();
    void CheckOrders();
    void CheckPicture();
    void CheckLastOrders();
    void CheckRestart();
    void CheckIdle();
    void CheckNotes();
    void End();

    /// @name With nothing else going on, one thing happens of which is known what follows
    /// @{
    void RunFromLeftovers();
    void CheckSettled();
    void CheckChanges();
    void CheckKeptOrders();
    void CheckNothingToDo();
    void CheckLatestOrders();
    void CheckSilence();
    void CheckAbsence();
    void CheckStrangers();
    void CheckManyServices();
    void CheckRefusal();
    void CheckSpareService();
    void CheckImmutable();
    /// @}
    void Make(OrvPlatform::ConnmanRole role);
    void Give(const std::string& interfaceName, bool isAccepted, const Servers* servers = nullptr);
    void SettleFor(Time duration, int orders, const char* otherwise);
    void Demand(bool holds, const std::string& otherwise);
    std::string Second() const { return bus.Top() == "eth0" ? "wwan0" : "eth0"; }
    long Records(const char* words) const;

    Simulation& sim;
    Random random;
    std::unique_ptr<OrvPlatform::ConnmanClient> client;
    std::list<WatchedCall*> calls;
    std::vector<Order> orders;
    std::set<std::string> wrongServers; // of eth0, in orders that make no sense
    std::set<std::string> leftOver;     // interfaces whose name servers may be given back unasked
    std::vector<std::string> records;
    int ordersBefore = 0;
    std::uint64_t events = 0;
    int threadsLeft = 0;
};

} // namespace OrvLab
