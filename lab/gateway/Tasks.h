// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Mailbox.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <string>

namespace OrvLab {

/// Work that is left in a mailbox: each piece is done once, on the loop's thread, in the order of the calls, and as
/// soon as the loop is back.
class Tasks {
public:
    Tasks(Simulation& simulation, std::shared_ptr<GatewayApp::Mailbox> its, int loopThread)
        : sim(simulation), box(std::move(its)), thread(loopThread) {}

    void Post(const std::string& name, std::function<void()> work);
    /// The loop will not be back.
    void LoopEnds() { ended = true; }
    /// The clock jumps while the loop waits for events: then none may lie there.
    void TimeHasAdvanced();
    bool AreAllDone() const { return open.empty(); }

private:
    struct Task {
        std::uint64_t number;
        std::string name;
        std::uint64_t began;
        std::uint64_t left = 0; // 0: Post has not come back
    };
    void Done(std::uint64_t number);

    Simulation& sim;
    const std::shared_ptr<GatewayApp::Mailbox> box;
    const int thread;
    std::uint64_t events = 0;
    std::uint64_t numbers = 0;
    std::deque<Task> open;
    bool inTask = false;
    bool ended = false;
};

} // namespace OrvLab
