// SPDX-License-Identifier: Apache-2.0
#include "Explored.h"

#include "broker/Program.h"

void OrvLab::RunExplored(Simulation& simulation, std::uint64_t seed) {
    Program program(simulation, seed);
    simulation.Run([&] { program.Run(); });
}
