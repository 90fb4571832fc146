// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Random.h"
#include "sim/Simulation.h"

#include <string>

namespace OrvLab {

/// The connection manager as its contract shows it: an order comes true later, or never.
class SimulatedConnman {
public:
    static SimulatedConnman* Current();

    SimulatedConnman(Simulation& simulation, std::uint64_t seed);
    ~SimulatedConnman();
    SimulatedConnman(const SimulatedConnman&) = delete;
    SimulatedConnman& operator=(const SimulatedConnman&) = delete;

    /// Something happens to it.
    void Change();
    /// From now on every order comes true soon.
    void Heal();

    std::string Top();
    bool Order(const std::string& interface);

private:
    Simulation& sim;
    Random random;
    bool obeys = true;
    bool isAway = false;
    Time slowness = 10 * MILLISECOND;
    std::string top;
    std::string ordered;
    Time comesTrue = NEVER;
};

} // namespace OrvLab
