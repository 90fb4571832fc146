// SPDX-License-Identifier: Apache-2.0
#include "BackOff.h"

#include <algorithm>
#include <utility>

namespace GatewayApp {

BackOff::BackOff(Duration firstDelay, Duration longestDelay, Random randomSource)
    : first(firstDelay), longest(longestDelay), random(std::move(randomSource)), full(firstDelay) {}

BackOff::Duration BackOff::Next() {
    const Duration now = full;
    full = std::min(full * 2, longest);
    const double share = 1.0 - random() / 2;
    return std::chrono::duration_cast<Duration>(now * share);
}

BackOff::Duration BackOff::First(Duration most) {
    Reset();
    return std::chrono::duration_cast<Duration>(most * random());
}

} // namespace GatewayApp
