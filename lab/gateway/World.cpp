// SPDX-License-Identifier: Apache-2.0
#include "gateway/World.h"

#include <cstdio>
#include <cstdlib>

namespace OrvLab {

namespace {

World* present = nullptr;

} // namespace

World::World(Simulation& simulation, std::uint64_t seed)
    : sim(simulation),
      resolver(simulation, seed * 7 + 1),
      cloud(simulation, agenda, seed * 7 + 2),
      kernel(simulation, seed * 7 + 4),
      files(seed * 7 + 3) {
    present = this;
    sim.SetSurroundings(&agenda);
}

World::~World() {
    present = nullptr;
}

World* World::Present() {
    return present;
}

World& World::Of(const char* call) {
    if (present == nullptr) {
        std::fprintf(stderr, "%s outside of a world\n", call);
        std::abort();
    }
    return *present;
}

} // namespace OrvLab
