// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Simulation.h"

namespace OrvLab {

/// The log of a simulated program.
struct LabLog {
    /// What a record may take, now and then, at most. 0: none takes any time.
    static Time longestStall;
};

} // namespace OrvLab
