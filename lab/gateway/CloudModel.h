// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/World.h"

#include <chrono>
#include <string>
#include <vector>

namespace OrvLab {

/// What a cloud connection has to do, as its headers and the manual say, without a look at how it does it.
class CloudModel {
public:
    explicit CloudModel(World& its);

    /// @name What the application calls; each at the beginning of its call
    /// @{
    void Opens(bool hasHost);
    void Closes();
    void Destroyed() { Closes(); }
    /// The call is over: what it has to tell has been told.
    void CameBack();
    /// @}

    /// @name What it is told
    /// @{
    void Connected(const std::string& source);
    void Lost();
    void Failed(std::chrono::milliseconds delay);
    void AskedForKeepAlive(std::chrono::seconds period);
    /// @}

    /// @name What is seen of it from outside
    /// @{
    void LookUpBegins();
    void LookUpRefused();
    void Dials(const std::string& address);
    void Greets(CloudSocket& socket);
    void Introduces(CloudSocket& socket);
    void TimeHasAdvanced();
    /// @}

    bool IsConnected() const { return phase == Phase::CONNECTED; }
    bool IsClosed() const { return phase == Phase::CLOSED; }
    /// Look-ups whose threads have not ended, by the simulation's count.
    std::function<int()> lookUps;
    /// Own addresses that mean a detour.
    std::function<bool(const std::string& source)> isDetour;
    /// The connection is the only user of cloud sockets and clients, so what is open must fit.
    void CheckOpen();

private:
    enum class Phase { CLOSED, ATTEMPT, CONNECTED, WAITING };
    struct Dial {
        std::string address;
        Time at;
    };

    void Enter(Phase next);
    void BeginAttempt();
    Time Allowance() const;
    void CheckDelay(Time least, Time most);
    void NoteLookUps();
    void CheckLoss();
    void CheckGoingOn();
    bool IsDriving() const;
    [[noreturn]] void Fail(const std::string& what);

    World& world;
    Phase phase = Phase::CLOSED;
    Time since = 0;
    Time stalled = 0; // before the phase began
    Time leastDelay = 0;
    Time mostDelay = 0;
    Time fullDelay = 0;
    bool owesLoss = false;
    bool asked = false;   // the name servers, in this attempt
    bool refused = false; // a thread
    std::uint64_t ways = 0;
    std::vector<Dial> dials;
    std::vector<Time> greetings;
    int introductions = 0;
    std::shared_ptr<CloudSocket> standing;
    Time undoneAt = 0; // when a connection was last given up
    Time fullAt = 0;   // when there were last as many look-ups as there may be
    Time keepAlive = SECOND;
    Time keepAliveSince = 0;
};

} // namespace OrvLab
