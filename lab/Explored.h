// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Simulation.h"

#include <cstdint>

namespace OrvLab {

/// What is explored: a program that follows from the seed, from its beginning to its end.
void RunExplored(Simulation& simulation, std::uint64_t seed);

} // namespace OrvLab
