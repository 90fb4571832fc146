// SPDX-License-Identifier: Apache-2.0
#include "Explored.h"

#include "connman/ConnmanProgram.h"

void OrvLab::RunExplored(Simulation& simulation, std::uint64_t seed) {
    ConnmanProgram program(simulation, seed);
    simulation.Run([&] { program.Run(); });
}
