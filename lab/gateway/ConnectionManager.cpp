// SPDX-License-Identifier: Apache-2.0
#include "gateway/ConnectionManager.h"

#include <CommonUtils/Networking/ConnmanCommands.h>

#include <algorithm>

namespace OrvLab {

namespace {

ConnectionManager* present = nullptr;

} // namespace

ConnectionManager* ConnectionManager::Present() {
    return present;
}

ConnectionManager::ConnectionManager(World& its, KernelWeather& itsWeather, std::uint64_t seed)
    : world(its), weather(itsWeather), random(seed) {
    present = this;
    top = HasService("eth0") ? "eth0" : "";
}

ConnectionManager::~ConnectionManager() {
    present = nullptr;
}

bool ConnectionManager::HasService(const std::string& interface) const {
    const KernelLink* const link = world.kernel.Link(interface);
    const auto& all = world.kernel.Addresses();
    return link != nullptr && link->Running() && std::any_of(all.begin(), all.end(), [&](const KernelAddress& own) {
               return own.link == link->index && !own.IsSix() && own.IsGlobal();
           });
}

void ConnectionManager::Change() {
    switch (random.Below(4)) {
    case 0:
        away = !away;
        break;
    case 1:
        obeys = !obeys;
        break;
    default:
        slowness = static_cast<Time>(random.Below(random.OneIn(4) ? 4000 : 400)) * MILLISECOND;
        break;
    }
    Follow();
}

void ConnectionManager::Heal() {
    away = false;
    obeys = true;
    slowness = 10 * MILLISECOND;
    Follow();
}

bool ConnectionManager::Order(const std::string& interface) {
    ordered = interface;
    Follow();
    return !away && HasService(interface);
}

void ConnectionManager::Follow() {
    world.agenda.At(world.sim.Now() + slowness, [this] { LookAround(); });
}

void ConnectionManager::LookAround() {
    if (away || !obeys)
        return;
    const std::string other = ordered == "eth0" ? "wwan0" : "eth0";
    const std::string wanted = HasService(ordered) ? ordered : HasService(other) ? other : "";
    if (wanted == top)
        return;
    world.sim.Trace("    connection manager: " + (wanted.empty() ? "nobody" : wanted) + " is on top");
    top = wanted;
    weather.MoveDefault(top);
    world.cloud.Follow();
    if (onMoved)
        onMoved();
}

} // namespace OrvLab

using OrvLab::ConnectionManager;
using OrvLab::Simulation;

namespace CommonUtils::Networking {

class ConnmanCommands::Worker {};

ConnmanCommands::ConnmanCommands() = default;
ConnmanCommands::~ConnmanCommands() = default;

ConnmanCommands& ConnmanCommands::GetInstance() {
    static ConnmanCommands instance;
    return instance;
}

std::string ConnmanCommands::GetTopPriorityInterface() {
    const OrvLab::Unwatched unwatched;
    Simulation::Current()->Step("ask the connection manager");
    return ConnectionManager::Present()->Top();
}

bool ConnmanCommands::SetTopPriorityInterface(const std::string& interfaceName) {
    const OrvLab::Unwatched unwatched;
    Simulation::Current()->Step("order from the connection manager");
    Simulation::Current()->Trace("  puts " + interfaceName + " on top");
    return ConnectionManager::Present()->Order(interfaceName);
}

} // namespace CommonUtils::Networking
