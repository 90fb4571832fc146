// SPDX-License-Identifier: Apache-2.0
#include "Explored.h"

#include "log/LogProgram.h"

void OrvLab::RunExplored(Simulation& simulation, std::uint64_t seed) {
    LogProgram program(simulation, seed);
    simulation.Run([&] { program.Run(); });
}

// Settings and log are made once in the life of a process.
std::uint64_t OrvLab::SeedsOfAProcess() {
    return 1;
}
