// SPDX-License-Identifier: Apache-2.0
#include "EthernetProbation.h"

#include <algorithm>
#include <array>

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr auto kMemory = 10min;
constexpr std::array<std::chrono::seconds, 5> kLengths{1min, 2min, 4min, 8min, 15min};
constexpr unsigned kProofs = 5;
// Long enough to tell a path that loses a fifth of its packets, on which a connection lives for some ten seconds.
constexpr std::chrono::seconds kHold{10};
// After a move, and after a loss, the cloud is usually back on Cellular within this time.
constexpr std::array<std::chrono::seconds, 5> kPatience{5s, 10s, 20s, 40s, 60s};
constexpr auto kLongestAway = 15min;
constexpr auto kRestWithoutCloud = 5s;

} // namespace

bool EthernetProbation::MovedToCellular(Time now) {
    const bool again = counted && now - *counted < kMemory;
    if (!again)
        level = 0;
    else if (ended != End::NONE)
        level = std::min<unsigned>(level + 1, kLengths.size() - 1);
    counted = now;
    ended = End::NONE;
    // The time without the cloud counts anew: the application begins to connect on this path only now.
    if (cloudAwaySince)
        cloudAwaySince = now;
    refused = false;
    active = again && cellularUsable;
    if (active)
        BeginSeries(now);
    return active;
}

void EthernetProbation::MovedToEthernet(Time now) {
    if (active)
        Lift(End::MOVED, now);
    refused = false;
}

void EthernetProbation::CloudIs(bool connected, Time now) {
    refused = false;
    if (connected)
        cloudAwaySince.reset();
    else if (!cloudAwaySince)
        cloudAwaySince = now;
}

void EthernetProbation::CellularIs(bool usable, Time now) {
    cellularUsable = usable;
    if (active && !usable)
        Lift(End::CELLULAR_LOST, now);
}

void EthernetProbation::EthernetIs(bool usable, Time now) {
    if (active && ethernetUsable && !usable)
        BeginSeries(now);
    ethernetUsable = usable;
}

void EthernetProbation::Proved(bool isGood, Time now) {
    proving = false;
    if (!active)
        return;
    nextWithoutCloud = now + kRestWithoutCloud;
    if (!isGood)
        return BeginSeries(now);
    ++good;
    if (CellularFails(now))
        return Lift(End::CLOUD_LOST, now);
    if (good >= kProofs)
        return Lift(End::PROVED, now);
    nextProof = std::max(now, nextProof + Length() / kProofs);
}

void EthernetProbation::Passed(Time now) {
    if (active && CloudAwayFor(kLongestAway, now))
        Lift(End::CLOUD_LOST_FOR_LONG, now);
}

std::chrono::seconds EthernetProbation::Length() const {
    return kLengths.at(level);
}

std::optional<EthernetProbation::Proof> EthernetProbation::Due(Time now) {
    if (!active || proving || !ethernetUsable)
        return std::nullopt;
    const bool cellularFails = CellularFails(now);
    if (now < nextProof && !(cellularFails && now >= nextWithoutCloud))
        return std::nullopt;
    proving = true;
    return Proof{cellularFails ? 0s : kHold};
}

std::optional<EthernetProbation::Time> EthernetProbation::NextLook() const {
    if (!active || proving)
        return std::nullopt;
    std::optional<Time> next;
    const auto sooner = [&next](Time time) { next = next ? std::min(*next, time) : time; };
    if (ethernetUsable)
        sooner(nextProof);
    if (ethernetUsable && cloudAwaySince && !refused)
        sooner(std::max(*cloudAwaySince + Patience(), nextWithoutCloud));
    if (cloudAwaySince)
        sooner(*cloudAwaySince + kLongestAway);
    return next;
}

void EthernetProbation::Lift(End reason, Time now) {
    active = false;
    proving = false;
    ended = reason;
    counted = now;
}

void EthernetProbation::BeginSeries(Time now) {
    good = 0;
    nextProof = now + Length() / kProofs;
}

bool EthernetProbation::CloudAwayFor(Clock::duration time, Time now) const {
    return cloudAwaySince && now - *cloudAwaySince >= time;
}

bool EthernetProbation::CellularFails(Time now) const {
    return !refused && CloudAwayFor(Patience(), now);
}

EthernetProbation::Clock::duration EthernetProbation::Patience() const {
    return kPatience.at(level);
}

} // namespace GatewayApp
