// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Simulation.h"

#include <cstddef>
#include <functional>
#include <string>

namespace OrvLab {

/// The edge of the client library, where the witness stands.
struct Edge {
    static void Begin();
    /// Broker connections that were made and not destroyed, of the client that is compared and of its neighbour.
    static std::size_t LivingOwners();
    static std::size_t LivingOwnersOfOthers();
    /// Whether a thread of the library, of the side for which the thread works that runs, goes on and does not wait.
    static bool IsAThreadHeldUp();
    /// What they have done comes before what this thread does.
    static void ComesBehindTheThreads();
    /// What the wall clock is off.
    static Time wallClockAhead;
    /// Asked when a message has been published, before the call that has done it goes on. How long that one is held up.
    static std::function<Time()> onPublished;

    /// @name The witness' words
    /// @{
    static std::string Record(const std::string& level, const std::string& logger, const std::string& tag,
                              const std::string& text);
    static std::string Publication(const std::string& owner, bool retained, bool assured, const std::string& topic,
                                   const std::string& payload);
    /// @}
};

} // namespace OrvLab
