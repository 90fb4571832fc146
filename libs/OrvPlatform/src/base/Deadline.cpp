// SPDX-License-Identifier: Apache-2.0
#include "base/Deadline.h"

#include <algorithm>

namespace OrvPlatform {

using Time = std::chrono::steady_clock::time_point;

std::chrono::milliseconds TimeUntil(Time deadline, Time now) {
    return std::max(std::chrono::ceil<std::chrono::milliseconds>(deadline - now), std::chrono::milliseconds(0));
}

int PollTimeout(Time deadline, Time now) {
    constexpr std::chrono::milliseconds longest{60'000};
    return deadline == Time::max() ? -1 : static_cast<int>(std::min(TimeUntil(deadline, now), longest).count());
}

} // namespace OrvPlatform
