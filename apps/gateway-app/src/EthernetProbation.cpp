// SPDX-License-Identifier: Apache-2.0
#include "EthernetProbation.h"

#include <algorithm>
#include <array>

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr auto MEMORY = 10min;
constexpr auto LONG_MEMORY = 1h; // of an Ethernet that has been on probation, and of the number of moves
constexpr std::size_t FEW_MOVES =
    3; // so many moves to Cellular within the long memory are an Ethernet that fails again
constexpr std::size_t MOST_MOVES = 5;

struct Stage {
    std::chrono::seconds length;
    unsigned proofs; // in a row
    // At least long enough to tell a path that loses a fifth of its packets; later ones leave less and less out.
    std::chrono::seconds hold;
    // After a move, and after a loss, the cloud is usually back on Cellular within this time.
    std::chrono::seconds patience;
};
constexpr std::array<Stage, 5> STAGES{
    {{1min, 5, 10s, 5s}, {2min, 6, 18s, 10s}, {4min, 6, 36s, 20s}, {8min, 8, 55s, 40s}, {15min, 15, 55s, 60s}}};
constexpr auto LONGEST_AWAY = 15min;
constexpr auto REST_WITHOUT_CLOUD = 5s;

} // namespace

bool EthernetProbation::MovedToCellular(Time now) {
    const bool again = IsAgain(now);
    if (!again)
        level = 0;
    else if (ended != End::NONE)
        level = std::min<unsigned>(level + 1, STAGES.size() - 1);
    counted = now;
    ended = End::NONE;
    // The time without the cloud counts anew: the application begins to connect on this path only now.
    if (cloudAwaySince)
        cloudAwaySince = now;
    refused = false;
    active = again && cellularUsable;
    if (active) {
        begun = now;
        length = STAGES.at(level).length;
        if (failOvers.size() == MOST_MOVES)
            length = std::max(length, std::chrono::ceil<std::chrono::seconds>(failOvers.front() + LONG_MEMORY - now));
        BeginSeries(now);
    }
    return active;
}

bool EthernetProbation::IsAgain(Time now) {
    failOvers.push_back(now);
    while (now - failOvers.front() >= LONG_MEMORY || failOvers.size() > MOST_MOVES)
        failOvers.pop_front();
    const Clock::duration memory = ended == End::NONE ? Clock::duration(MEMORY) : Clock::duration(LONG_MEMORY);
    return (counted && now - *counted < memory) || failOvers.size() >= FEW_MOVES;
}

void EthernetProbation::MovedToEthernet(Time now) {
    if (active)
        Lift(End::MOVED, now);
    refused = false;
}

void EthernetProbation::CloudIs(bool connected, Time now) {
    refused = false;
    ethernetReaches = false;
    if (connected)
        cloudAwaySince.reset();
    else if (!cloudAwaySince)
        cloudAwaySince = now;
}

void EthernetProbation::CloudRefused() {
    refused = true;
    ethernetReaches = false;
}

void EthernetProbation::CloudFailed(Time now) {
    if (active && ethernetReaches)
        Lift(End::CLOUD_LOST, now);
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

bool EthernetProbation::Proved(bool isGood, Time now) {
    if (!active)
        return false;
    const bool held = proving && proving->hold > 0s;
    proving.reset();
    nextWithoutCloud = now + REST_WITHOUT_CLOUD;
    if (!isGood) {
        BeginSeries(now);
        return false;
    }
    const Stage& stage = STAGES.at(level);
    if (held) {
        ++good;
        nextProof = std::max(now, nextProof + stage.length / stage.proofs);
    } else {
        nextProof = std::max(nextProof, nextWithoutCloud);
    }
    if (good >= stage.proofs && now - begun >= length) {
        Lift(End::PROVED, now);
        return false;
    }
    const bool asked = ethernetReaches;
    ethernetReaches = CellularFails(now);
    return ethernetReaches && !asked;
}

void EthernetProbation::Passed(Time now) {
    if (active && CloudAwayFor(LONGEST_AWAY, now))
        Lift(End::CLOUD_LOST_FOR_LONG, now);
}

std::optional<EthernetProbation::Proof> EthernetProbation::Due(Time now) {
    if (!active || !ethernetUsable)
        return std::nullopt;
    const bool cellularFails = CellularFails(now);
    if (proving ? proving->hold == 0s || !cellularFails
                : now < nextProof && !(cellularFails && now >= nextWithoutCloud))
        return std::nullopt;
    proving = Proof{cellularFails ? 0s : STAGES.at(level).hold};
    return proving;
}

std::optional<EthernetProbation::Time> EthernetProbation::NextDue() const {
    if (!active || (proving && proving->hold == 0s))
        return std::nullopt;
    std::optional<Time> next;
    const auto sooner = [&next](Time time) { next = next ? std::min(*next, time) : time; };
    if (ethernetUsable && !proving)
        sooner(nextProof);
    if (ethernetUsable && cloudAwaySince && !refused) {
        const Time fails = *cloudAwaySince + STAGES.at(level).patience;
        sooner(proving ? fails : std::max(fails, nextWithoutCloud));
    }
    if (cloudAwaySince)
        sooner(*cloudAwaySince + LONGEST_AWAY);
    return next;
}

void EthernetProbation::Lift(End reason, Time now) {
    active = false;
    proving.reset();
    ethernetReaches = false;
    ended = reason;
    counted = now;
}

void EthernetProbation::BeginSeries(Time now) {
    good = 0;
    ethernetReaches = false;
    nextProof = now + STAGES.at(level).length / STAGES.at(level).proofs;
}

bool EthernetProbation::CloudAwayFor(Clock::duration time, Time now) const {
    return cloudAwaySince && now - *cloudAwaySince >= time;
}

bool EthernetProbation::CellularFails(Time now) const {
    return !refused && CloudAwayFor(STAGES.at(level).patience, now);
}

} // namespace GatewayApp
