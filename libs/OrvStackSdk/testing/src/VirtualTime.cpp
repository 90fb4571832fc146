// SPDX-License-Identifier: Apache-2.0
// Virtual time, and the library's clocks made of it: what RealTime.cpp is in the library itself.
#include "VirtualTime.h"

#include "OrvRoute.h"
#include "OrvStatusHandler.h"

#include <atomic>
#include <cstdint>

namespace OrvStackSdk {

namespace Testing {

namespace {

constexpr std::int64_t NEW_YEAR_2026_MS = 1767225600000;

std::atomic<std::int64_t> elapsedMs{0};
std::atomic<std::int64_t> wallClockAtStartMs{NEW_YEAR_2026_MS};

} // namespace

void VirtualTime::Reset() {
    elapsedMs = 0;
    wallClockAtStartMs = NEW_YEAR_2026_MS;
}

VirtualTime::Milliseconds VirtualTime::Now() {
    return Milliseconds(elapsedMs.load(std::memory_order_relaxed));
}

void VirtualTime::Set(Milliseconds now) {
    elapsedMs.store(now.count(), std::memory_order_relaxed);
}

std::chrono::system_clock::time_point VirtualTime::WallClock() {
    return std::chrono::system_clock::time_point(Milliseconds(wallClockAtStartMs) + Now());
}

void VirtualTime::SetWallClock(std::chrono::system_clock::time_point time) {
    const auto sinceEpoch = std::chrono::duration_cast<Milliseconds>(time.time_since_epoch());
    wallClockAtStartMs = (sinceEpoch - Now()).count();
}

} // namespace Testing

OrvRoute::Clock::time_point OrvRoute::RealTime::operator()() const {
    return Clock::time_point(Testing::VirtualTime::Now());
}

OrvStatusHandler::Clock::time_point OrvStatusHandler::RealTime::operator()() const {
    return Testing::VirtualTime::WallClock();
}

} // namespace OrvStackSdk
