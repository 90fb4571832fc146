// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <optional>

namespace GatewayApp {

/// When to look why the client library's poke does not succeed: its own line has a number and no interface. The library
/// tells nobody that it pokes; it follows from what is reported to it, see docs/route.md. A look is due some seconds
/// after a poke should have succeeded, and again after 1, 2, 4, 8 and then 15 minutes while it still has not.
///
/// Events and time in, decisions out. One thread.
class PokeDiagnosis {
public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;
    enum class Path : int { ETHERNET, CELLULAR };

    /// @name What has happened
    /// @{
    void CloudIs(bool isConnected, Time now);
    /// As it was reported to the library.
    void HasAddress(Path path, bool has, Time now);
    void RouteHasMoved(bool toCellular, Time now);
    /// @}

    /// Over which path a look is due now; each one is given once.
    std::optional<Path> Due(Time now);
    /// When to ask again; none while nothing is poked.
    std::optional<Time> NextDue() const { return next; }
    /// When the library began to poke over Cellular for the last time, at the earliest; none when it never has.
    std::optional<Time> CellularBegan() const { return cellularBegan; }
    /// A look that was begun is about a poke that still goes on.
    bool Pokes(Path path) const { return poked == path; }

private:
    void Follow(Time now);

    bool connected = true;
    bool onCellular = false;
    bool ethernet = false;
    bool cellular = false;
    Time lost;
    std::optional<Path> poked;
    std::optional<Time> cellularBegan;
    std::optional<Time> next;
    Clock::duration pause{};
};

} // namespace GatewayApp
