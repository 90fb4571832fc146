// SPDX-License-Identifier: Apache-2.0
#include "TickRhythm.h"

#include <algorithm>

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

// The client library's, see docs/route.md.
constexpr auto DELAY = 10s; // from the loss of the cloud to the poke over Cellular
constexpr auto ROUND = 20s; // how long Cellular is poked before it starts over
constexpr auto SETTLE = 5s; // from the return to Ethernet until a cloud that did not connect counts as lost

constexpr auto QUICK = 40ms;
constexpr auto NORMAL = 250ms;
constexpr auto AFTER_QUICK = 750ms; // with the quick ones no more ticks in a round than 80, one each 250 ms
constexpr auto SLOW = 1000ms;
constexpr auto SLOWEST = 2000ms; // a poke takes four to six ticks and fails after 15 s
constexpr auto QUICK_POKE = 2200ms;
constexpr auto QUICK_LOSS = 120ms; // the library needs up to two ticks to see a loss
constexpr auto QUICK_MOVE = 1s;
constexpr auto PATIENCE = 3min; // on Cellular, until the poke over Ethernet is driven slowly
constexpr auto LONG_PATIENCE = 15min;

std::chrono::milliseconds SlowAfter(TickRhythm::Clock::duration time) {
    return time >= LONG_PATIENCE ? SLOWEST : SLOW;
}

std::chrono::milliseconds RoundUp(TickRhythm::Clock::duration time) {
    return std::chrono::ceil<std::chrono::milliseconds>(time);
}

} // namespace

void TickRhythm::Reported(OrvStackSdk::OrvEvent event, Time now) {
    using OrvStackSdk::OrvEvent;
    if (event == OrvEvent::CLOUD_CONNECTED || event == OrvEvent::CLOUD_DISCONNECTED)
        CloudIs(event == OrvEvent::CLOUD_CONNECTED, now);
    if (event == OrvEvent::CELLULAR_IP_LOST)
        cellularSince.reset();
    if (event == OrvEvent::CELLULAR_IP_GAINED && !cellularSince)
        cellularSince = now;
    // On Cellular the library pokes Ethernet from now on.
    if (event == OrvEvent::ETHERNET_IP_GAINED && onCellularSince) {
        onCellularSince = now;
        quickUntil = now + QUICK_MOVE;
    }
}

void TickRhythm::CloudIs(bool isConnected, Time now) {
    if (connected && !isConnected)
        quickUntil = now + QUICK_LOSS;
    connected = isConnected;
    if (connected)
        lost.reset();
}

void TickRhythm::RouteMoves(Time now) {
    quickUntil = now + QUICK_MOVE;
}

void TickRhythm::RouteHasMoved(bool toCellular, Time now) {
    quickUntil.reset();
    onCellularSince.reset();
    lost.reset();
    if (toCellular)
        onCellularSince = now;
    else if (!connected)
        lost = now + SETTLE;
}

void TickRhythm::Ticked(Time now) {
    if (!connected && !onCellularSince && !lost)
        lost = now;
}

std::chrono::milliseconds TickRhythm::Next(Time now) const {
    if (fixed > 0ms)
        return fixed;
    if (quickUntil && now < *quickUntil)
        return QUICK;
    if (lost)
        return WithoutCloud(now);
    if (onCellularSince && now - *onCellularSince >= PATIENCE)
        return SlowAfter(now - *onCellularSince);
    return NORMAL;
}

/// When the library's first poke over Cellular begins; none while Cellular has no address.
std::optional<TickRhythm::Time> TickRhythm::PokeBegins() const {
    if (!cellularSince)
        return std::nullopt;
    return std::max(*lost + DELAY, *cellularSince);
}

std::chrono::milliseconds TickRhythm::WithoutCloud(Time now) const {
    if (now < *lost)
        return std::min(NORMAL, RoundUp(*lost - now) + 1ms);
    if (now < *lost + QUICK_LOSS)
        return QUICK;
    const std::optional<Time> poke = PokeBegins();
    if (!poke)
        return now - *lost < DELAY + ROUND ? NORMAL : SLOW;
    if (now < *poke)
        return std::min(NORMAL, RoundUp(*poke - now) + 1ms);
    if (now < *poke + QUICK_POKE)
        return QUICK;
    return now < *poke + ROUND ? AFTER_QUICK : SlowAfter(now - *poke);
}

} // namespace GatewayApp
