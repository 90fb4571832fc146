// SPDX-License-Identifier: Apache-2.0
#include "Explored.h"

#include "gateway/CloudProgram.h"
#include "gateway/WatcherProgram.h"

namespace {

template <typename Program>
void RunProgram(OrvLab::Simulation& simulation, std::uint64_t seed) {
    Program program(simulation, seed);
    simulation.Run([&] { program.Run(); });
}

} // namespace

void OrvLab::RunExplored(Simulation& simulation, std::uint64_t seed) {
    if (seed % 2 == 0)
        RunProgram<WatcherProgram>(simulation, seed);
    else
        RunProgram<CloudProgram>(simulation, seed);
}
