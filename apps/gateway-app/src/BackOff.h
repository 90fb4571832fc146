// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>

namespace GatewayApp {

/// How long to wait before the next attempt: twice as long each time up to a limit, and every time a random part less,
/// so that a fleet that lost its cloud at one moment does not come back at one moment.
class BackOff {
public:
    using Duration = std::chrono::milliseconds;
    /// @return from 0 up to, not including, 1
    using Random = std::function<double()>;

    BackOff(Duration firstDelay, Duration longestDelay, Random randomSource);

    /// From half of the full delay to all of it.
    Duration Next();
    /// The wait before the first attempt after a success: any part of `most`, by chance. Next begins anew.
    Duration First(Duration most);
    /// The next attempt is a first one again.
    void Reset() { full = first; }

private:
    const Duration first;
    const Duration longest;
    const Random random;
    Duration full;
};

} // namespace GatewayApp
