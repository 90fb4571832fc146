// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Random.h"
#include "sim/Simulation.h"

#include <curl/curl.h>

#include <cstddef>
#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>

namespace OrvLab {

struct TransferStack;

/// One easy handle of the simulated libcurl.
struct Transfer {
    std::map<int, long> numbers;
    std::map<int, std::string> texts;
    curl_sockopt_callback prepare = nullptr;
    void* prepareArgument = nullptr;
    TransferStack* stack = nullptr;

    Time endsAt = NEVER;
    int result = 0;
    bool isSilent = false;    // it ends without a message
    bool hasForeword = false; // another message comes before its own
    bool hasPrepared = false;
    int told = 0; // messages
    int holdError = 0;
    const void* side = nullptr; // whose it is
};

struct TransferStack {
    Transfer* transfer = nullptr;
    bool hasBegun = false;
    CURLMsg message{};
    const void* side = nullptr;
};

/// libcurl at its edge: what becomes of a transfer follows from the seed.
class SimulatedTransfers {
public:
    static SimulatedTransfers* Current();

    SimulatedTransfers(Simulation& simulation, std::uint64_t seed);
    ~SimulatedTransfers();
    SimulatedTransfers(const SimulatedTransfers&) = delete;
    SimulatedTransfers& operator=(const SimulatedTransfers&) = delete;

    /// From now on they succeed, if they reach the cloud at all.
    void Heal(bool reaches);
    /// Of the side for which the thread works that runs.
    std::size_t Living() const;
    std::size_t LivingStacks() const;
    /// What a client of that side that is gone has left, as it may.
    void Forget();

    void DrawOutcome(Transfer& transfer);
    bool PrepareSocket(Transfer& transfer);

    Simulation& sim;
    Random random;
    std::set<Transfer*> transfers;
    std::set<TransferStack*> stacks;
    std::string heldTo; // the interface to which a socket was bound last
    int holdError = 0;  // the answer to that

private:
    bool healed = false;
    bool reaches = true;
};

} // namespace OrvLab
