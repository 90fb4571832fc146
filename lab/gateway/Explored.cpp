// SPDX-License-Identifier: Apache-2.0
#include "Explored.h"

#include "gateway/CloudProgram.h"

void OrvLab::RunExplored(Simulation& simulation, std::uint64_t seed) {
    CloudProgram program(simulation, seed);
    simulation.Run([&] { program.Run(); });
}
