// SPDX-License-Identifier: Apache-2.0
#include "Explored.h"

#include "gateway/CloudProgram.h"
#include "gateway/RoutesProgram.h"
#include "gateway/WatcherProgram.h"

namespace {

template <typename Program>
void RunProgram(OrvLab::Simulation& simulation, std::uint64_t seed) {
    Program program(simulation, seed);
    simulation.Run([&] { program.Run(); });
}

} // namespace

void OrvLab::RunExplored(Simulation& simulation, std::uint64_t seed) {
    switch (seed % 3) {
    case 0:
        return RunProgram<WatcherProgram>(simulation, seed);
    case 1:
        return RunProgram<CloudProgram>(simulation, seed);
    default:
        return RunProgram<RoutesProgram>(simulation, seed);
    }
}
