// SPDX-License-Identifier: Apache-2.0
#include "Explored.h"

#include "client/ClientProgram.h"
#include "client/HandleProgram.h"

void OrvLab::RunExplored(Simulation& simulation, std::uint64_t seed) {
    if (seed % 4 == 3) {
        HandleProgram program(simulation, seed);
        simulation.Run([&] { program.Run(); });
        return;
    }
    ClientProgram program(simulation, seed);
    simulation.Run([&] { program.Run(); });
}
