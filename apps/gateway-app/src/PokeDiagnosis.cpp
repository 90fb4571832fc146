// SPDX-License-Identifier: Apache-2.0
#include "PokeDiagnosis.h"

#include <algorithm>

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr auto DELAY = 10s; // the library's, from the loss of the cloud to the poke over Cellular
constexpr auto GRACE = 3s;  // a poke that succeeds has done so by then
constexpr PokeDiagnosis::Clock::duration FIRST_PAUSE = 1min;
constexpr PokeDiagnosis::Clock::duration LONGEST_PAUSE = 15min;

} // namespace

void PokeDiagnosis::CloudIs(bool isConnected, Time now) {
    if (connected && !isConnected)
        lost = now;
    connected = isConnected;
    Follow(now);
}

void PokeDiagnosis::HasAddress(Path path, bool has, Time now) {
    (path == Path::ETHERNET ? ethernet : cellular) = has;
    Follow(now);
}

void PokeDiagnosis::RouteHasMoved(bool toCellular, Time now) {
    onCellular = toCellular;
    lost = now;
    Follow(now);
}

void PokeDiagnosis::Follow(Time now) {
    std::optional<Path> pokes;
    if (onCellular && ethernet)
        pokes = Path::ETHERNET;
    else if (!onCellular && !connected && cellular)
        pokes = Path::CELLULAR;
    if (pokes == poked)
        return;
    poked = pokes;
    pause = FIRST_PAUSE;
    next.reset();
    if (!poked)
        return;
    const Time begins = poked == Path::CELLULAR ? std::max(lost + DELAY, now) : now;
    if (poked == Path::CELLULAR)
        cellularBegan = begins;
    next = begins + GRACE;
}

std::optional<PokeDiagnosis::Path> PokeDiagnosis::Due(Time now) {
    if (!next || now < *next)
        return std::nullopt;
    next = now + pause;
    pause = std::min(2 * pause, LONGEST_PAUSE);
    return poked;
}

} // namespace GatewayApp
