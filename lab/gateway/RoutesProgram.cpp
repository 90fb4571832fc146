// SPDX-License-Identifier: Apache-2.0
#include "gateway/RoutesProgram.h"

#include "connman/FakeDbus.h"
#include "gateway/FakeSignals.h"
#include "gateway/RoutesModel.h"
#include "gateway/WatcherProgram.h"
#include "sim/Descriptors.h"

#include <algorithm>
#include <csignal>

/// apps/orv-source-routes/src/main.cpp under another name.
int SourceRoutesMain(int argc, char** argv);

namespace OrvLab {

namespace {

constexpr std::uint32_t TABLES[] = {1011, 1012};
constexpr const char* NAMES[] = {"eth0", "wwan0"};
// The longest pause between two attempts at the bus, with what each takes, and the longest lifetime of a router.
constexpr Time SETTLED = 90 * SECOND;
constexpr Time AT_ONCE = 3 * SECOND;
constexpr Time RETRY = SECOND;
// After the end of a lifetime, of which nobody tells.
constexpr Time JUST_NOW = 100 * MILLISECOND;

} // namespace

RoutesProgram::RoutesProgram(Simulation& simulation, std::uint64_t seed)
    : sim(simulation),
      random(seed * 5 + 9),
      world(simulation, seed),
      weather(world, seed * 11 + 6),
      bus(simulation, seed * 3 + 17, *this),
      both(world.agenda, bus) {
    FakeDbus::bus = &bus;
    FakeDbus::connections = 0;
    sim.SetSurroundings(&both);
    sim.SetJumpListener([this](Time /*by*/) {
        if (!ended && IsIdle(sim, sim.Find(mainThread), "poll"))
            CheckWhileItWaits();
    });
}

RoutesProgram::~RoutesProgram() {
    FakeDbus::bus = nullptr;
}

void RoutesProgram::Moved(const std::string& /*interfaceName*/) {
    sim.Fail("orders something of the connection manager");
}

void RoutesProgram::Configured(const std::string& /*interfaceName*/, const std::vector<std::string>& /*servers*/) {
    sim.Fail("orders something of the connection manager");
}

void RoutesProgram::Run() {
    mainThread = sim.Self().number;
    if (!random.OneIn(4))
        weather.Boot();
    Simulation::Thread& other = sim.Start("weather", [this] { Weather(); });
    char name[] = "orv-source-routes";
    char* arguments[] = {name, nullptr};
    const int status = Watch([&] { return SourceRoutesMain(1, arguments); });
    ended = true;
    const std::string left = RoutesModel(world.kernel, sim.Now()).Left();
    if (quiet && status != 0)
        sim.Fail("ends with the status " + std::to_string(status));
    if (status == 0 && !left.empty())
        sim.Fail("leaves the " + left + " behind");
    sim.Join(other);
    if (sim.ThreadsAlive() != 1)
        sim.Fail("a thread is left");
    if (FakeDbus::connections != 0 || Descriptors::Of().Count() != 0)
        sim.Fail("a connection or a descriptor is left");
}

void RoutesProgram::ChangeBus() {
    switch (random.Below(9)) {
    case 0:
        return bus.EndManager();
    case 1:
        return bus.StartManager();
    case 2:
        return random.OneIn(2) ? bus.Stop() : bus.Start();
    case 3:
        return bus.SetFrozen(random.OneIn(2));
    case 4:
        return bus.SetManners(static_cast<SimulatedBus::Manners>(random.Below(4)));
    case 5:
        return bus.Forge();
    default:
        return bus.ChangeServices();
    }
}

void RoutesProgram::Weather() {
    for (int count = random.Between(0, 12); count > 0; --count) {
        for (int burst = random.OneIn(3) ? random.Between(2, 8) : 1; burst > 0; --burst) {
            random.OneIn(3) ? ChangeBus() : weather.Act();
            if (random.OneIn(2))
                sim.Step("something has changed");
        }
        if (random.OneIn(2))
            sim.Sleep(static_cast<Time>(random.Below(random.OneIn(3) ? 8000 : 20)) * MILLISECOND);
    }
    if (!random.OneIn(4))
        Collect();
    Raise(SIGTERM);
}

void RoutesProgram::Collect() {
    sim.DisableStalls();
    world.kernel.Heal();
    bus.Heal();
    sim.Sleep(SETTLED);
    CheckAll(bus.Top());
    if (!random.OneIn(3))
        weather.Settle();
    // What happens now has to come true at once.
    for (int count = random.Between(0, 6); count > 0; --count) {
        random.OneIn(2) ? bus.ChangeServices() : weather.Act();
        sim.Sleep(random.OneIn(2) ? static_cast<Time>(random.Below(20)) * MILLISECOND : AT_ONCE);
    }
    sim.Sleep(AT_ONCE);
    CheckAll(bus.Top());
    if (random.OneIn(3)) {
        random.OneIn(2) ? bus.Stop() : bus.EndManager();
        sim.Sleep(AT_ONCE);
        CheckAll("");
        bus.Heal();
    }
    sim.Sleep(SETTLED);
    CheckAll(bus.Top());
    const int before = world.kernel.Requests();
    sim.Sleep(600 * SECOND);
    CheckAll(bus.Top());
    if (world.kernel.Requests() - before > 20)
        sim.Fail("asks the kernel " + std::to_string(world.kernel.Requests() - before) + " times with nothing to do");
    quiet = true;
}

void RoutesProgram::CheckAll(const std::string& told) {
    if (NetworkModel{world.kernel, sim.Now()}.HasSilentExpiry(sim.Now() - JUST_NOW))
        return;
    const RoutesModel model(world.kernel, sim.Now());
    for (std::size_t index = 0; index < 2; ++index) {
        const std::string wrong = model.Wrong(NAMES[index], TABLES[index]);
        if (!wrong.empty())
            sim.Fail(wrong);
    }
    const std::string wrong = model.WrongInMain(told);
    if (!wrong.empty())
        sim.Fail(wrong + ", and the connection manager tells of " + (told.empty() ? "nobody" : told));
}

/// It has seen that the address is gone, and knows the router no longer.
void RoutesProgram::ForgetRouterWithoutAddress(const std::string& name) {
    const KernelLink* const link = world.kernel.Link(name);
    const auto isOwn = [&](const KernelAddress& own) {
        return own.link == link->index && !own.IsSix() && own.IsGlobal();
    };
    const auto& all = world.kernel.Addresses();
    if (link != nullptr && std::none_of(all.begin(), all.end(), isOwn))
        world.kernel.ForgetRouters(link->index);
}

/// Unless it has something to try again.
void RoutesProgram::CheckWhileItWaits() {
    const Time now = sim.Now();
    const Simulation::Thread* const thread = sim.Find(mainThread);
    const bool retries = thread->deadline != NEVER && thread->deadline - now <= RETRY;
    if (retries || world.kernel.Refuses() || NetworkModel{world.kernel, now}.HasSilentExpiry(now - JUST_NOW))
        return;
    const RoutesModel model(world.kernel, now);
    for (std::size_t index = 0; index < 2; ++index) {
        const std::string wrong = model.Wrong(NAMES[index], TABLES[index]);
        if (!wrong.empty())
            sim.Fail(wrong + ", and it waits");
        ForgetRouterWithoutAddress(NAMES[index]);
    }
}

} // namespace OrvLab
