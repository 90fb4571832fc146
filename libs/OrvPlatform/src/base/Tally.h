// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <cstdint>

namespace OrvPlatform {

/// A count that any thread adds to and reads, without a lock. 32 bits: gateways' processors have no wider atomics.
class Tally {
public:
    void Add() noexcept { value.fetch_add(1, std::memory_order_relaxed); }
    std::uint32_t Value() const noexcept { return value.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint32_t> value{0};
};

/// What the process has lost, see OrvPlatform/Counters.h. Ready before anything is constructed, and of use after all is
/// destroyed: three numbers, which no fork leaves locked. So they need no owner as the settings and the log do.
struct Tallies {
    Tally brokerLosses;
    Tally refusedPublications;
    Tally lostLogRecords;
};
extern Tallies tallies;

} // namespace OrvPlatform
