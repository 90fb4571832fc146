// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <random>

namespace OrvPlatform {

/// The pauses between attempts: each twice the one before up to a limit.
class Backoff {
public:
    static constexpr std::chrono::milliseconds FIRST{250};
    static constexpr std::chrono::milliseconds LIMIT{4000};

    Backoff(std::chrono::milliseconds firstPause, std::chrono::milliseconds longestPause);

    /// From FIRST to LIMIT, each shortened by up to a quarter at random, so that the clients of a broker that comes
    /// back do not all knock at the same moment.
    explicit Backoff(std::uint32_t seed);

    /// The pause before the next attempt.
    std::chrono::milliseconds Next();

    /// The next pause is the first one again.
    void Reset() { pause = first; }

private:
    const std::chrono::milliseconds first;
    const std::chrono::milliseconds limit;
    std::optional<std::minstd_rand> random;
    std::chrono::milliseconds pause;
};

} // namespace OrvPlatform
