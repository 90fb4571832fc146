// SPDX-License-Identifier: Apache-2.0
#include "RouteMoves.h"

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr auto PATIENCE = 3s;

bool IsWan(RouteMoves::Path path) {
    return path == RouteMoves::Path::ETHERNET || path == RouteMoves::Path::CELLULAR;
}

} // namespace

void RouteMoves::Settle(Path path) {
    if (IsWan(path))
        settled = path;
    ordered.reset();
    begun.reset();
}

void RouteMoves::DefaultRouteIs(Path path, Time now) {
    if (path == route)
        return;
    before.at(static_cast<std::size_t>(route)) += now - routeSince;
    route = path;
    routeSince = now;
    if (settled == Path::NONE)
        return Settle(path);
    if (IsWan(path) && path != settled && !begun)
        begun = now;
    else if (path == settled && !ordered)
        begun.reset();
}

void RouteMoves::OrderedByLibrary(Path path, Time now) {
    if (settled == Path::NONE)
        return;
    if (path == settled) {
        ordered.reset(); // what it had ordered before is taken back
        if (!IsWan(route) || route == settled)
            begun.reset();
        return;
    }
    ordered = path;
    if (!begun)
        begun = now;
}

std::optional<RouteMoves::Move> RouteMoves::Take(Time now) {
    if (!begun)
        return std::nullopt;
    const bool agreed = ordered == route;
    if (!agreed && now - *begun < PATIENCE)
        return std::nullopt;
    if (!ordered && !IsWan(route))
        return std::nullopt; // on its way: the kernel has no route at this moment
    const Path target = ordered.value_or(route);
    const Move move{settled, target, ordered.has_value(), route == target, *begun, now};
    Settle(target);
    return move;
}

std::optional<RouteMoves::Time> RouteMoves::Due() const {
    return begun ? std::optional(*begun + PATIENCE) : std::nullopt;
}

std::chrono::steady_clock::duration RouteMoves::On(Path path, Time now) const {
    const auto current = path == route ? now - routeSince : std::chrono::steady_clock::duration::zero();
    return before.at(static_cast<std::size_t>(path)) + current;
}

} // namespace GatewayApp
