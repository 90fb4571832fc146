// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <OrvStackSdk/OrvEnums.h>

#include <chrono>
#include <optional>

namespace GatewayApp {

/// How long to wait until the next tick of the client library. Every step of a poke takes a tick, and a poke that has
/// failed is begun anew with the next one, so quick ticks make a fail-over quick and a failing poke dear. The rhythm is
/// quick only where a step is due: when the cloud is lost, when the poke over Cellular begins, and while the default
/// route moves.
///
/// Events and time in, times out. One thread.
class TickRhythm {
public:
    using Clock = std::chrono::steady_clock;
    using Time = Clock::time_point;

    /// @param always the same time for every tick; zero: by the situation
    explicit TickRhythm(std::chrono::milliseconds always = {}) : fixed(always) {}

    void SetFixed(std::chrono::milliseconds always) { fixed = always; }

    /// @name What has happened; Next may be sooner than before
    /// @{
    /// The event has been reported to the library.
    void Reported(OrvStackSdk::OrvEvent event, Time now);
    /// The kernel's default route has changed.
    void RouteMoves(Time now);
    /// The library has told that a move is complete.
    void RouteHasMoved(bool toCellular, Time now);
    void Ticked(Time now);
    /// @}

    /// The library has told of a move to Cellular, and of none back.
    bool IsOnCellular() const { return onCellularSince.has_value(); }
    /// From now to the next tick.
    std::chrono::milliseconds Next(Time now) const;

private:
    void CloudIs(bool isConnected, Time now);
    std::optional<Time> PokeBegins() const;
    std::chrono::milliseconds WithoutCloud(Time now) const;

    std::chrono::milliseconds fixed;
    bool connected = false;
    std::optional<Time> lost; // the tick that sees the loss: the library's ten seconds begin with it
    std::optional<Time> quickUntil;
    std::optional<Time> cellularSince; // since when Cellular has an address
    std::optional<Time> onCellularSince;
};

} // namespace GatewayApp
