// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "connman/SimulatedBus.h"

namespace OrvLab {

/// libdbus's connections, as its user sees them; its messages are libdbus' own.
struct FakeDbus {
    /// Where connections lead to.
    static SimulatedBus* bus;
    /// Made and not released.
    static int connections;
};

} // namespace OrvLab
