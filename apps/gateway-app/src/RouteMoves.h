// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <optional>

namespace GatewayApp {

/// Tells when a move of the WAN route is complete, exactly once for each. Two say that the route moves, in either order
/// and a few tenths of a second apart: the kernel, whose default route leads elsewhere, and the client library, which
/// has ordered it. A move that only one of them knows of counts as complete after three seconds. The first route over
/// either interface is none, whatever the library has ordered before: there was nothing to move.
///
/// Observations and time in, moves out. One thread.
class RouteMoves {
public:
    using Time = std::chrono::steady_clock::time_point;
    enum class Path : int {
        NONE, ///< no default route
        ETHERNET,
        CELLULAR,
        OTHER ///< over an interface that is none of the two
    };
    struct Move {
        Path from = Path::NONE; ///< ETHERNET or CELLULAR, as is `to`
        Path to = Path::NONE;
        bool ordered = false;  ///< by the client library; otherwise ConnMan or another program has done it
        bool followed = false; ///< the kernel's default route leads there
        Time begun;            ///< the first sign of it
        Time ended;
    };

    /// @param kernel where the default route leads at the beginning
    RouteMoves(Path kernel, Time now) : route(kernel), routeSince(now) { Settle(kernel); }

    void DefaultRouteIs(Path path, Time now);
    /// The client library says that its move is complete.
    void OrderedByLibrary(Path path, Time now);

    /// The move that has become complete; given once. To be asked after each observation, and when it is due.
    std::optional<Move> Take(Time now);
    /// When a move counts as complete of which only one of them has told; nothing: none has begun.
    std::optional<Time> Due() const;

    /// Where the kernel's default route leads, and for how long it has led over a path in all.
    Path Route() const { return route; }
    std::chrono::steady_clock::duration On(Path path, Time now) const;

private:
    void Settle(Path path);

    Path route;
    Time routeSince;
    std::array<std::chrono::steady_clock::duration, 4> before{}; // on each path, until routeSince

    Path settled = Path::NONE;   // where the last complete move has led; NONE: no WAN path had the route yet
    std::optional<Path> ordered; // by the library, of the move that is not complete
    std::optional<Time> begun;
};

} // namespace GatewayApp
