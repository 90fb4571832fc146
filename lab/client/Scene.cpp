// SPDX-License-Identifier: Apache-2.0
#include "client/Scene.h"

#include "ConnInterfaceString.h"
#include "broker/Wire.h"
#include "client/Edge.h"
#include "client/Neighbour.h"
#include "client/RouteReference.h"
#include "config/GatewayConfig.h"
#include "sim/LabLog.h"

namespace OrvLab {

namespace {

// As each client of a process has a number in its broker's client id, so that they do not evict each other.
OrvPlatform::GatewayConfig& Settings(bool ofTheNeighbour = false) {
    static OrvPlatform::GatewayConfig settings[2];
    return settings[ofTheNeighbour ? 1 : 0];
}

// Some gateways are not set up well.
void DrawNames(std::uint64_t seed) {
    RouteReference::ethernetName = seed % 31 == 3 ? "" : "eth0";
    RouteReference::cellularName = seed % 29 == 5 ? "a-name-of-sixteen" : "wwan0";
    Settings() = {};
    Settings().broker.clientIdSuffix.clear();
    Settings().interfaces.ethernet = RouteReference::ethernetName;
    Settings().interfaces.cellular = RouteReference::cellularName;
    Settings().cloud.endpoint = "cloud.example:8443/poke";
    Settings(true) = Settings();
    Settings(true).broker.clientIdSuffix = Neighbour::SUFFIX;
}

} // namespace

Scene::Scene(Simulation& simulation, std::uint64_t seed)
    : sim((DrawNames(seed), simulation)),
      broker(simulation, seed * 3 + 7),
      witness(simulation),
      connman(simulation, seed * 7 + 1),
      transfers(simulation, seed * 11 + 5),
      files(seed * 13 + 9),
      random(seed * 5 + 3) {
    LabLog::longestStall = random.OneIn(4) ? static_cast<Time>(random.Between(1, 2000)) * MILLISECOND : 0;
    ConnInterfaceString.clear();
    RouteReference::path.clear();
    Edge::Begin();
    Wire::Reset();
    Wire::broker = &broker;
    Wire::onPublish = nullptr;
    Wire::onMessage = nullptr;
    Wire::isAttended = [](const std::string&) { return false; };
    Wire::lastId = 0;
    broker.PassOn();
    sim.LetThreadsTell();
    sim.SetSurroundings(&broker);
    sim.SetJumpListener([this](Time by) {
        Wire::Jumped(by);
        witness.Jumped(by);
    });
}

Scene::~Scene() {
    Wire::broker = nullptr;
    Edge::onPublished = nullptr;
    LabLog::taker = nullptr;
}

void Scene::TroubleAtRandom() {
    using Behaviour = ScriptedBroker::Behaviour;
    constexpr Behaviour BEHAVIOURS[] = {Behaviour::HEALTHY, Behaviour::FLAKY, Behaviour::REFUSING, Behaviour::FROZEN,
                                        Behaviour::DOWN};
    switch (random.Weighted({2, 1, 1, 3, 3})) {
    case 0:
        broker.SetBehaviour(BEHAVIOURS[random.Weighted({6, 3, 1, 1, 1})]);
        break;
    case 1:
        broker.DropAll();
        break;
    case 2:
        broker.Restart();
        break;
    case 3:
        connman.Change();
        break;
    default:
        files.Meddle();
        Edge::wallClockAhead += static_cast<Time>(random.Between(-100, 100)) * SECOND;
        break;
    }
}

void Scene::Heal() {
    LabLog::longestStall = 0;
    sim.DisableStalls();
    broker.Heal();
    connman.Heal();
    files.Heal();
    sim.Sleep(SETTLED);
}

void Scene::CheckNothingIsLeft() {
    if (Edge::LivingOwners() + Edge::LivingOwnersOfOthers() != 0)
        sim.Fail("a connection to the broker is not gone");
    if (sim.ThreadsAlive() != 1)
        sim.Fail("a thread is left");
    if (Wire::Clients() != 0)
        sim.Fail("a client of the broker's library is left");
    if (Descriptors::Of().Count() != 0)
        sim.Fail("a descriptor is left");
}

} // namespace OrvLab

namespace OrvPlatform {

const GatewayConfig& Config() {
    const OrvLab::Unwatched unwatched;
    return OrvLab::Settings(OrvLab::Neighbour::IsAtWork(*OrvLab::Simulation::Current()));
}

} // namespace OrvPlatform
