// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace OrvStackSdk::Testing {

/// The time of the one gateway, for whoever is asked for it on whatever thread. It orders nothing: a delivery thread
/// learns through it what time it is, and nothing else.
class VirtualTime {
public:
    using Milliseconds = std::chrono::milliseconds;

    static void Reset();
    static Milliseconds Now();
    static void Set(Milliseconds now);
    static std::chrono::system_clock::time_point WallClock();
    static void SetWallClock(std::chrono::system_clock::time_point time);
};

} // namespace OrvStackSdk::Testing
