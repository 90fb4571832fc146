// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

#pragma GCC visibility push(default)
namespace OrvPlatform {

/// What this process has lost since it began, over all its broker connections and loggers. Each count only grows;
/// behind 4294967295 comes 0. A forked child goes on from its parent's counts.
struct Counters {
    /// Connections to the gateway's broker that stood and then ended, but for those that the program ended itself. Each
    /// client id counts: the client library has two, so a broker that ends counts twice.
    std::uint32_t brokerLosses = 0;
    /// Publications that were refused: QueueOwner answered anything but HANDED_OVER. What is left to the gateway's
    /// controller is not refused.
    std::uint32_t refusedPublications = 0;
    /// Records whose level was on and that did not reach the log: its disk was full, its reader did not keep up, or
    /// there was no memory.
    std::uint32_t lostLogRecords = 0;
};

/// An addition of this tree's platform. Another platform may lack it, and with it this header: ask __has_include.
///
/// Callable from any thread. Takes no lock and never throws. The counts are read one after the other, not in one
/// moment.
Counters ReadCounters() noexcept;

} // namespace OrvPlatform
#pragma GCC visibility pop
