// SPDX-License-Identifier: Apache-2.0
#include "Explored.h"

#include "gateway/ApplicationProgram.h"
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
    switch (seed % 6) {
    case 0:
        return RunProgram<WatcherProgram>(simulation, seed);
    case 1:
    case 4:
        return RunProgram<CloudProgram>(simulation, seed);
    case 2:
        return RunProgram<RoutesProgram>(simulation, seed);
    default:
        return RunProgram<ApplicationProgram>(simulation, seed);
    }
}
