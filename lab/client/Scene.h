// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "broker/ScriptedBroker.h"
#include "client/SimulatedConnman.h"
#include "client/SimulatedFiles.h"
#include "client/SimulatedTransfers.h"
#include "client/Witness.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include <cstdint>

namespace OrvLab {

/// The gateway around the client library: a broker, a connection manager, a cloud, somebody else in the folder of the
/// status files, and the settings. One at a time.
class Scene {
public:
    Scene(Simulation& simulation, std::uint64_t seed);
    ~Scene();
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    Simulation& sim;

protected:
    // Each from its beginning to what the caller has still to wait for.
    static constexpr Time INIT_LIMIT = 3100 * MILLISECOND;
    static constexpr Time DEINIT_LIMIT = 1050 * MILLISECOND;
    // The route says good-bye, the session sends what it has.
    static constexpr Time RELEASE_LIMIT = 1250 * MILLISECOND;
    static constexpr Time SETTLED = 20 * SECOND;

    /// The broker's behaviour changes, connections end, the connection manager changes its mind, or somebody meddles
    /// with the files.
    void TroubleAtRandom();
    /// From now on everybody is well, and what has begun comes to its end.
    void Heal();
    /// The connections, threads and descriptors of all clients are gone.
    void CheckNothingIsLeft();

    ScriptedBroker broker;
    Witness witness;
    SimulatedConnman connman;
    SimulatedTransfers transfers;
    SimulatedFiles files;
    Random random;
};

} // namespace OrvLab
