// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

namespace GatewayApp {

/// Notices that the kernel's default route leads elsewhere than the connection manager's order says, because another
/// program has replaced it. The connection manager does not look after a route that it has set, but it sets it anew
/// when the order changes: so the order is changed once and back.
///
/// Observations and time in, steps out. One thread.
class RouteContradiction {
public:
    using Time = std::chrono::steady_clock::time_point;
    enum class Step : int {
        NONE,
        CHANGE_ORDER,  ///< another program has replaced the route: put the other WAN interface on top
        RESTORE_ORDER, ///< put WanTop on top again, whatever came of the change
        GIVE_UP        ///< the route was not put right
    };

    /// @param kernel the interface that has the default route; empty: none
    /// @param top the connection manager's; empty while it is not known
    Step Observe(const std::string& kernel, const std::string& top, Time now);

    /// The client library has moved the route: its order stands, and nothing is restored over it.
    /// @return whether an order of a step may still be under way. Then the library's has to be given again, so that it
    ///         is the last one.
    [[nodiscard]] bool LibraryHasMoved(Time now);

    /// The interface that the connection manager had on top when the contradiction was found.
    const std::string& WanTop() const { return wanted; }

private:
    enum class State : int { WATCHING, CHANGED, RESTORED, GIVEN_UP };
    void Enter(State next, Time now);

    State state = State::WATCHING;
    Time since;
    bool contradicts = false;
    std::string lastKernel;
    std::string lastTop;
    std::string wanted;
};

} // namespace GatewayApp
