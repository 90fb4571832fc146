// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Simulation.h"

#include <cstdint>

namespace OrvLab {

/// What is explored: a program that follows from the seed, from its beginning to its end.
void RunExplored(Simulation& simulation, std::uint64_t seed);

/// How many seeds one process runs: one where the explored code keeps something for the life of the process.
std::uint64_t SeedsOfAProcess();

} // namespace OrvLab
