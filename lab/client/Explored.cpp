// SPDX-License-Identifier: Apache-2.0
#include "Explored.h"

#include "client/ClientProgram.h"

void OrvLab::RunExplored(Simulation& simulation, std::uint64_t seed) {
    ClientProgram program(simulation, seed);
    simulation.Run([&] { program.Run(); });
}
