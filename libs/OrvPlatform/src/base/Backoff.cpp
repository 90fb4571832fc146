// SPDX-License-Identifier: Apache-2.0
#include "base/Backoff.h"

#include <algorithm>

namespace OrvPlatform {

Backoff::Backoff(std::chrono::milliseconds firstPause, std::chrono::milliseconds longestPause)
    : first(firstPause), limit(longestPause), pause(firstPause) {}

Backoff::Backoff(std::uint32_t seed) : Backoff(FIRST, LIMIT) {
    random.emplace(seed);
    // The first numbers of neighbouring seeds are neighbours too.
    constexpr int unrelated = 8;
    random->discard(unrelated);
}

std::chrono::milliseconds Backoff::Next() {
    const auto full = pause;
    pause = std::min(pause * 2, limit);
    if (!random)
        return full;
    std::uniform_int_distribution<std::chrono::milliseconds::rep> cut(0, full.count() / 4);
    return full - std::chrono::milliseconds(cut(*random));
}

} // namespace OrvPlatform
