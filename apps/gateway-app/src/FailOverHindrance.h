// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace GatewayApp {

/// Why Cellular does not take over although the cloud is lost on Ethernet, as far as it can be seen without trying: the
/// client library waits in silence for a Cellular that can be tried. Said after the time in which a fail-over would
/// have happened, once for each reason in each outage.
///
/// Observations and time in, lines out. One thread.
class FailOverHindrance {
public:
    using Time = std::chrono::steady_clock::time_point;
    /// What of Cellular is missing, the first that is.
    enum class Missing : int { NOTHING, INTERFACE, LINK, ADDRESS, SERVICE };

    explicit FailOverHindrance(std::string cellularInterface) : cellular(std::move(cellularInterface)) {}

    /// @param isWanted the cloud is lost, and Cellular has not taken over
    /// @return what is to be said now, with the remedy
    std::optional<std::string> Observe(bool isWanted, Missing missing, Time now);

private:
    std::string Words(Missing missing) const;

    const std::string cellular;
    std::optional<Time> since;
    Missing said = Missing::NOTHING;
};

} // namespace GatewayApp
