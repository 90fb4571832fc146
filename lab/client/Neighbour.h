// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/IOrvStackClient.h"
#include "OrvStackSdk/IOrvStackClientHandler.h"
#include "client/Witness.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace OrvLab {

/// Another client in the same process, under another name and on a thread of its own: made, used and ended while the
/// one that is compared works. Nothing that it does may be seen there. Of itself it is only demanded that its calls
/// come back in time and throw nothing, and that it is told of each message while all is well.
class Neighbour final {
public:
    Neighbour(Witness& seenBy, std::uint64_t seed) : witness(seenBy), sim(seenBy.sim), random(seed) {}

    /// At random, on a thread of its own, until `goesOn` says no; it is gone then.
    void Live(const std::function<bool()>& goesOn);
    /// On the calling thread, while all is well: it comes, is told of what is published, and goes.
    void Visit(const std::function<void()>& publish);

    /// Whether the thread that runs works for it, or was started for it.
    static bool IsAtWork(Simulation& simulation) { return simulation.Self().side != nullptr; }
    /// Behind the names of its connections.
    static const char* const SUFFIX;

private:
    class Handler;
    using Client = std::shared_ptr<OrvStackSdk::IOrvStackClient>;

    template <typename Body>
    void Do(const char* name, Time limit, Body body);
    bool Make();
    void Act(bool inCallback);
    void LetGo();
    void Release(Client& last);
    void Called(bool isConfirmation);
    void InitAnew();

    Witness& witness;
    Simulation& sim;
    Random random;
    Client client;
    std::shared_ptr<Handler> handler;
    bool isVisiting = false;
    bool inInit = false;
    int callbacks = 0; // that are under way
    int probes = 0;    // told of, in a visit
    friend class Handler;
};

} // namespace OrvLab
