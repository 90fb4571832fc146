// SPDX-License-Identifier: Apache-2.0
#include "client/SimulatedConnman.h"

#include "CommonUtils/Networking/ConnmanCommands.h"
#include "client/RouteReference.h"
#include "client/Witness.h"

namespace OrvLab {

namespace {

SimulatedConnman* current = nullptr;

} // namespace

SimulatedConnman* SimulatedConnman::Current() {
    return current;
}

SimulatedConnman::SimulatedConnman(Simulation& simulation, std::uint64_t seed) : sim(simulation), random(seed) {
    top = RouteReference::ethernetName;
    current = this;
}

SimulatedConnman::~SimulatedConnman() {
    current = nullptr;
}

void SimulatedConnman::Change() {
    switch (random.Below(5)) {
    case 0:
        isAway = !isAway;
        break;
    case 1:
        obeys = !obeys;
        break;
    case 2:
        top = random.OneIn(2) ? RouteReference::ethernetName : RouteReference::cellularName;
        break;
    default:
        slowness = static_cast<Time>(random.Below(random.OneIn(4) ? 6000 : 400)) * MILLISECOND;
        break;
    }
}

void SimulatedConnman::Heal() {
    isAway = false;
    obeys = true;
    slowness = 10 * MILLISECOND;
    if (!ordered.empty())
        comesTrue = sim.Now();
}

std::string SimulatedConnman::Top() {
    if (comesTrue <= sim.Now() && !isAway) {
        top = ordered;
        comesTrue = NEVER;
    }
    return isAway ? "" : top;
}

// Only the latest order counts.
bool SimulatedConnman::Order(const std::string& interface) {
    Top();
    if (ordered != interface || comesTrue == NEVER)
        comesTrue = obeys ? sim.Now() + slowness : NEVER;
    ordered = interface;
    return !isAway;
}

} // namespace OrvLab

using OrvLab::SimulatedConnman;
using OrvLab::Simulation;
using OrvLab::Witness;

namespace CommonUtils::Networking {

class ConnmanCommands::Worker {};

ConnmanCommands::ConnmanCommands() = default;
ConnmanCommands::~ConnmanCommands() = default;

ConnmanCommands& ConnmanCommands::GetInstance() {
    const OrvLab::Unwatched unwatched;
    static ConnmanCommands instance;
    return instance;
}

std::string ConnmanCommands::GetTopPriorityInterface() {
    const OrvLab::Unwatched unwatched;
    Simulation::Current()->Step("ask the connection manager");
    const std::string top = SimulatedConnman::Current()->Top();
    Witness::Current()->Note("which is on top: " + top);
    return top;
}

bool ConnmanCommands::SetTopPriorityInterface(const std::string& interfaceName) {
    const OrvLab::Unwatched unwatched;
    Simulation::Current()->Step("order from the connection manager");
    Witness::Current()->Note("put on top " + interfaceName);
    return SimulatedConnman::Current()->Order(interfaceName);
}

bool ConnmanCommands::SetDnsConfiguration(const std::string& interfaceName, const std::string& first,
                                          const std::string& second) {
    const OrvLab::Unwatched unwatched;
    Simulation::Current()->Step("order from the connection manager");
    Witness::Current()->Note("name servers of " + interfaceName + ": '" + first + "' '" + second + "'");
    return true;
}

} // namespace CommonUtils::Networking
