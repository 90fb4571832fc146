// SPDX-License-Identifier: Apache-2.0
// Signals that are taken from a descriptor, and settings that are in no file.
#include "gateway/FakeSignals.h"
#include "gateway/World.h"
#include "signals/Signals.h"
#include "sim/Descriptors.h"
#include "sim/Simulation.h"

#include <GatewayMainBaseUnits/IpInterfacesMapping.h>
#include <OrvPlatform/Counters.h>
#include <OrvPlatform/Settings.h>
#include <OrvResources/StaticConfigStore.h>
#include <config/GatewayConfig.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <deque>
#include <memory>

namespace OrvLab {

namespace {

class SignalFile final : public OpenFile {
public:
    SignalFile() { present = this; }
    ~SignalFile() override { present = nullptr; }
    short Ready() const override { return waiting.empty() ? 0 : POLLIN; }
    long Receive(void* /*buffer*/, std::size_t /*size*/) override {
        errno = EAGAIN;
        return -1;
    }

    std::deque<int> waiting;
    static inline SignalFile* present = nullptr;
};

} // namespace

void Raise(int number) {
    if (SignalFile::present != nullptr)
        SignalFile::present->waiting.push_back(number);
}

bool CanRaise() {
    return SignalFile::present != nullptr;
}

} // namespace OrvLab

namespace OrvSignals {

using OrvLab::SignalFile;

void Block(std::initializer_list<int> /*numbers*/) {}

Signals::Signals(std::initializer_list<int> /*numbers*/)
    : descriptor([] {
          const OrvLab::Unwatched unwatched;
          return OrvLab::Descriptors::Of().Open(std::make_shared<SignalFile>());
      }()) {}

Signals::~Signals() {
    close(descriptor);
}

int Signals::Take() {
    const OrvLab::Unwatched unwatched;
    OrvLab::Simulation::Current()->Step("take a signal");
    std::deque<int>& waiting = SignalFile::present->waiting;
    if (waiting.empty())
        return 0;
    const int number = waiting.front();
    waiting.pop_front();
    if (const OrvLab::World* const world = OrvLab::World::Present(); world != nullptr && world->onSignal)
        world->onSignal(number);
    return number;
}

} // namespace OrvSignals

namespace GatewayMainBaseUnits {

IpInterfacesMapping& IpInterfacesMapping::GetInstance() {
    static IpInterfacesMapping mapping;
    return mapping;
}

std::string IpInterfacesMapping::GetInterfaceName(const std::string& role) const {
    return role == "Ethernet" ? "eth0" : role == "Cellular" ? "wwan0" : "";
}

} // namespace GatewayMainBaseUnits

namespace OrvPlatform {

LoadedConfig LoadGatewayConfig() {
    return {};
}

bool ReloadLogLevels() noexcept {
    const OrvLab::Unwatched unwatched;
    if (const OrvLab::World& world = OrvLab::World::Of("ReloadLogLevels"); world.onReload)
        world.onReload();
    return true;
}

Counters ReadCounters() noexcept {
    return {};
}

} // namespace OrvPlatform

namespace OrvResources {

namespace {

class Store final : public IStaticConfigStore {
public:
    std::string GetValue(const int& key) override {
        const OrvLab::Unwatched unwatched;
        return key == 0 ? OrvLab::World::Of("GetValue").endpoint : std::string();
    }
};

} // namespace

std::unique_ptr<IStaticConfigStore> CreateStaticConfigStore() {
    return std::make_unique<Store>();
}

} // namespace OrvResources
