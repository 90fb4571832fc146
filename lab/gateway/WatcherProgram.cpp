// SPDX-License-Identifier: Apache-2.0
#include "gateway/WatcherProgram.h"

#include "gateway/EventFiles.h"
#include "sim/Descriptors.h"

#include <cstring>

namespace OrvLab {

using GatewayApp::EventLoop;
using GatewayApp::Mailbox;
using GatewayApp::NetworkWatcher;
using GatewayApp::WanInterfaces;
using OrvStackSdk::OrvEvent;

namespace {

constexpr const char* NAMES[] = {"eth0", "wwan0"};
constexpr WanInterfaces::Path PATHS[] = {WanInterfaces::Path::ETHERNET, WanInterfaces::Path::CELLULAR};
// Longer than any lifetime and what the kernel takes to notice that it is over.
constexpr Time SETTLED = 45 * SECOND;

} // namespace

bool IsIdle(const Simulation& simulation, const Simulation::Thread* thread, const char* waiting) {
    return thread != nullptr && thread->isReady != nullptr && thread->stalledUntil <= simulation.Now() &&
           std::strcmp(thread->doing, waiting) == 0;
}

WatcherProgram::WatcherProgram(Simulation& simulation, std::uint64_t seed)
    : sim(simulation), random(seed * 5 + 7), world(simulation, seed), weather(world, seed * 11 + 5) {
    sim.SetJumpListener([this](Time /*by*/) {
        if (watcher && IsIdle(sim, sim.Find(loopThread), "epoll_wait"))
            CheckPicture();
    });
}

void WatcherProgram::Run() {
    loopThread = sim.Self().number;
    if (!random.OneIn(4))
        weather.Boot();
    Simulation::Thread* const other = &sim.Start("weather", [this] { Weather(); });
    loop = Watch([] { return std::make_unique<EventLoop>(); });
    const NetworkWatcher::Handler handler{[this](const WanInterfaces::Events& events) { OnEvents(events); },
                                          [this](const std::string& interface) { OnDefaultRoute(interface); }};
    watcher =
        Watch([&] { return std::make_unique<NetworkWatcher>(*loop, WanInterfaces(NAMES[0], NAMES[1]), handler); });
    for (std::size_t index = 0; index < 2; ++index)
        told[index] = {watcher->Wan().Running(PATHS[index]), watcher->Wan().HasAddress(PATHS[index])};
    toldDefault = watcher->DefaultInterface();
    auto box = Watch([] { return std::make_unique<Mailbox>(); });
    Watch([&] { loop->Watch(box->ReadyDescriptor(), EPOLLIN, [&](std::uint32_t) { box->DoAll(); }); });
    sim.Start("conductor", [&] {
        sim.Join(*other);
        sim.Step("the end is near");
        Watch([&] { box->Post([this] { loop->Quit(); }); });
    });
    Watch([&] {
        loop->Run();
        watcher.reset();
        loop->Forget(box->ReadyDescriptor());
        loop.reset();
    });
    sim.Join(*other);
    sim.Sleep(SETTLED);
    if (Descriptors::Of().Count() != 1)
        sim.Fail("a descriptor is left");
}

void WatcherProgram::Weather() {
    for (int count = random.Between(0, 25); count > 0; --count) {
        for (int burst = random.OneIn(3) ? random.Between(2, 15) : 1; burst > 0; --burst) {
            weather.Act();
            if (random.OneIn(2))
                sim.Step("the kernel has changed");
        }
        if (random.OneIn(2))
            sim.Sleep(static_cast<Time>(random.Below(random.OneIn(3) ? 8000 : 20)) * MILLISECOND);
    }
    if (random.OneIn(3))
        return;
    sim.DisableStalls();
    world.kernel.Heal();
    sim.Sleep(SETTLED);
    world.kernel.Chatter();
    sim.Sleep(SECOND);
    const std::uint64_t before = Rounds();
    sim.Sleep(600 * SECOND);
    if (Rounds() - before > 5)
        sim.Fail("wakes up " + std::to_string(Rounds() - before) + " times with nothing to hear");
}

void WatcherProgram::Enter(const char* name) {
    if (sim.Self().number != loopThread)
        sim.Fail(std::string(name) + " on another thread than the loop's");
    if (inCallback)
        sim.Fail(std::string(name) + " inside another callback");
    if (!watcher)
        sim.Fail(std::string(name) + " before there is a watcher, or behind its end");
}

void WatcherProgram::OnEvents(const WanInterfaces::Events& events) {
    const Unwatched unwatched;
    Enter("OnEvents");
    inCallback = true;
    const auto change = [&](bool& state, bool now, const char* what) {
        sim.Trace(std::string("  event: ") + what);
        if (state == now)
            sim.Fail(std::string("tells \"") + what + "\", which is no change");
        state = now;
    };
    for (const OrvEvent event : events) {
        switch (event) {
        case OrvEvent::ETHERNET_CONNECTED:
        case OrvEvent::ETHERNET_DISCONNECTED:
            change(told[0].running, event == OrvEvent::ETHERNET_CONNECTED, "Ethernet's link");
            break;
        case OrvEvent::CELLULAR_CONNECTED:
        case OrvEvent::CELLULAR_DISCONNECTED:
            change(told[1].running, event == OrvEvent::CELLULAR_CONNECTED, "Cellular's link");
            break;
        case OrvEvent::ETHERNET_IP_GAINED:
        case OrvEvent::ETHERNET_IP_LOST:
            change(told[0].address, event == OrvEvent::ETHERNET_IP_GAINED, "Ethernet's address");
            break;
        case OrvEvent::CELLULAR_IP_GAINED:
        case OrvEvent::CELLULAR_IP_LOST:
            change(told[1].address, event == OrvEvent::CELLULAR_IP_GAINED, "Cellular's address");
            break;
        default:
            sim.Fail("tells an event that is not the network's");
        }
    }
    if (random.OneIn(4))
        Ask();
    inCallback = false;
}

void WatcherProgram::OnDefaultRoute(const std::string& interface) {
    const Unwatched unwatched;
    Enter("OnDefaultRoute");
    sim.Trace("  default route: " + interface);
    if (interface == toldDefault)
        sim.Fail("tells a default route that is no change");
    if (interface != watcher->DefaultInterface())
        sim.Fail("tells another default route than it knows");
    toldDefault = interface;
}

void WatcherProgram::Ask() {
    const char* const name = NAMES[random.Below(2)];
    const std::uint64_t before = world.kernel.Generation();
    const auto found = Watch([&] { return watcher->Find(name); });
    const KernelLink* const link = world.kernel.Link(name);
    if (before != world.kernel.Generation())
        return;
    if (found.has_value() != (link != nullptr) || (link != nullptr && found->running != link->Running()))
        sim.Fail(std::string("finds ") + name + " in another state than the kernel has it");
}

void WatcherProgram::CheckPicture() {
    const NetworkModel model{world.kernel, sim.Now()};
    const bool unsaid = model.HasSilentExpiry();
    const WanInterfaces& wan = watcher->Wan();
    for (std::size_t index = 0; index < 2; ++index) {
        const std::string name = NAMES[index];
        if (wan.Exists(PATHS[index]) != (world.kernel.Link(name) != nullptr))
            sim.Fail("does not know whether there is " + name);
        if (wan.Running(PATHS[index]) != model.Running(name))
            sim.Fail("does not know the link state of " + name);
        if (!unsaid && wan.HasAddress(PATHS[index]) != model.HasAddress(name))
            sim.Fail("does not know whether " + name + " has an address");
        if (told[index].running != wan.Running(PATHS[index]) || told[index].address != wan.HasAddress(PATHS[index]))
            sim.Fail("has not told what it knows of " + name);
    }
    for (const KernelAddress& own : world.kernel.Addresses())
        if (wan.OwnerOf(own.text) != model.OwnerOf(own.text))
            sim.Fail("does not know whose address " + own.text + " is");
    if (!unsaid && watcher->DefaultInterface() != model.DefaultInterface())
        sim.Fail("the default route leads over \"" + model.DefaultInterface() + "\", it knows \"" +
                 watcher->DefaultInterface() + "\"");
    if (toldDefault != watcher->DefaultInterface())
        sim.Fail("has not told the default route that it knows");
}

} // namespace OrvLab
