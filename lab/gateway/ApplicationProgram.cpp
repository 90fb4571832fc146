// SPDX-License-Identifier: Apache-2.0
#include "gateway/ApplicationProgram.h"

#include "Application.h"
#include "CloudDialer.h"
#include "InstanceLock.h"
#include "PathProver.h"
#include "gateway/EventFiles.h"
#include "gateway/FakeSignals.h"
#include "gateway/WatcherProgram.h"
#include "sim/Descriptors.h"

#include <linux/rtnetlink.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <memory>

namespace OrvLab {

namespace {

// The longest pause before a start and before an attempt, what both take, and a broker that ended the connection to be
// noticed.
constexpr Time WELL_AGAIN = 60 * SECOND;
// The loss is noticed, ten seconds pass, a poke of four ticks, the move.
constexpr Time FAILED_OVER = 18 * SECOND;
constexpr Time RETURNED = 8 * SECOND;
// A proof that fails, the minute, the proof that ends it, the return.
constexpr Time PROVED = 110 * SECOND;
constexpr Time LAST_LOOK_UP = 100 * SECOND;

} // namespace

ApplicationProgram::ApplicationProgram(Simulation& simulation, std::uint64_t seed)
    : sim(simulation),
      random(seed * 5 + 11),
      world(simulation, seed),
      weather(world, seed * 11 + 7),
      manager(world, weather, seed * 13 + 1),
      model(world, files, mainThread),
      library(world, manager, files, model, seed * 13 + 2),
      optionsFile(memfd_create("options", 0)) {
    const std::vector<std::vector<std::string>> sets{
        {"198.51.100.1"}, {"198.51.100.1", "198.51.100.2"}, {"2001:db8::1", "198.51.100.1"}};
    const unsigned set = random.Below(3);
    world.resolver.SetAddresses(sets[set]);
    model.fourOnly = set < 2;
    world.cloud.SetShareOfTrouble(random.OneIn(2) ? 0 : random.Below(6));
    world.cloud.sourceOf = [this](bool six) { return DefaultSource(six); };
    world.cloud.isDead = [this](const std::string& source) { return IsDead(source); };
    world.faultyFiles = random.OneIn(6) ? 3 : 0;
    world.endpoint = random.OneIn(8) ? "" : "endpoint.example";
    world.prove = [this](const std::string& interface) { return Prove(interface); };
    world.onReload = [this] {
        reloading = true;
        if (!wrongFile)
            model.OptionsAre(options);
        model.Reloaded();
    };
    refusals = random.OneIn(4) ? static_cast<unsigned>(random.Between(2, 6)) : 0;
    files.unwatchable = random.OneIn(8);
    library.disk = random.OneIn(4) ? 300 * MILLISECOND : 0;
    model.DiskTakes(library.disk);
    library.reaches = [this](const std::string& interface) {
        return manager.HasService(interface) && !IsDead(SourceOf(interface, false));
    };
    if (!files.unwatchable)
        model.csv = [this] { return library.Csv(); };
    model.where = [this] { return library.Where(); };
    manager.onMoved = [this] { model.NoteKernel(); };
    sim.SetJumpListener([this](Time by) {
        if (over || !IsIdle(sim, sim.Find(mainThread), "epoll_wait"))
            return;
        reloading = false;
        model.TimeHasAdvanced(by);
    });
    sim.SetStartListener([this] { return quiet || !random.OneIn(refusals); });
}

ApplicationProgram::~ApplicationProgram() {
    close(optionsFile);
}

std::string ApplicationProgram::SourceOf(const std::string& interface, bool six) const {
    const KernelLink* const link = world.kernel.Link(interface);
    for (const KernelAddress& own : world.kernel.Addresses())
        if (link != nullptr && own.link == link->index && own.IsSix() == six && own.IsGlobal() && !own.tentative &&
            !own.duplicate)
            return own.text;
    return {};
}

std::string ApplicationProgram::DefaultSource(bool six) const {
    const KernelRoute* best = nullptr;
    for (const KernelRoute& route : world.kernel.Routes())
        if (route.IsDefault() && route.table == RT_TABLE_MAIN && !route.unreachable && route.expires > sim.Now() &&
            (route.family == AF_INET6) == six && (best == nullptr || route.metric < best->metric))
            best = &route;
    for (const KernelLink& link : world.kernel.Links())
        if (best != nullptr && link.index == best->link)
            return SourceOf(link.name, six);
    return {};
}

bool ApplicationProgram::IsDead(const std::string& source) const {
    const std::string owner = NetworkModel{world.kernel, sim.Now()}.OwnerOf(source);
    const KernelLink* const link = world.kernel.Link(owner);
    return link == nullptr || !link->Running() || dead[owner == "wwan0" ? 1 : 0];
}

World::Proof ApplicationProgram::Prove(const std::string& interface) {
    World::Proof proof;
    proof.source = SourceOf(interface, false);
    proof.duration = static_cast<Time>(random.Below(random.OneIn(6) ? 6000 : 200)) * MILLISECOND;
    if (proof.source.empty() || IsDead(proof.source))
        proof.duration = 10 * SECOND;
    if (quiet)
        proof.duration = std::min(proof.duration, proof.source.empty() || IsDead(proof.source) ? NEVER : SECOND / 10);
    proof.named = quiet || !random.OneIn(10);
    proof.good = quiet || !random.OneIn(10);
    return proof;
}

void ApplicationProgram::WriteOptions(bool mayBeWrong) {
    if (reloading)
        return;
    wrongFile = mayBeWrong && random.OneIn(5);
    options.host = random.OneIn(8) ? "" : random.OneIn(3) ? "other.example" : "cloud.example";
    options.keepAliveEthernet = random.OneIn(4) ? 2 : 1;
    options.keepAliveCellular = random.OneIn(4) ? 10 : 30;
    options.tick = random.OneIn(6) ? 250 << random.Below(2) : 0;
    std::string text = wrongFile ? "tick-ms=5\n" : "tick-ms=" + std::to_string(options.tick) + "\n";
    text += options.host.empty() ? "" : "cloud-host=" + options.host + "\n";
    text += "cloud-keepalive-ethernet-s=" + std::to_string(options.keepAliveEthernet) + "\n" +
            "cloud-keepalive-cellular-s=" + std::to_string(options.keepAliveCellular) + "\n";
    static_cast<void>(!ftruncate(optionsFile, 0));
    static_cast<void>(!pwrite(optionsFile, text.data(), text.size(), 0));
}

void ApplicationProgram::Run() {
    weather.givesNamesBack = true;
    if (!random.OneIn(5))
        weather.Boot();
    manager.Heal();
    if (random.OneIn(6))
        ActOnLibrary();
    Simulation::Thread& other = sim.Start("weather", [this] { Weather(); });
    RunApplication();
    over = true;
    sim.Join(other);
    End();
}

void ApplicationProgram::RunApplication() {
    WriteOptions(false);
    model.OptionsAre(options);
    const std::vector<std::string> arguments{"--config",      "/proc/self/fd/" + std::to_string(optionsFile),
                                             "--lock",        FakeFiles::LOCK,
                                             "--status-file", FakeFiles::STATUS};
    auto application =
        Watch([&] { return std::make_unique<GatewayApp::Application>(GatewayApp::ReadOptions(arguments), arguments); });
    Watch([&] { application->Run(); });
    model.Returns();
    Watch([&] { application.reset(); });
}

void ApplicationProgram::Follow() {
    manager.Follow();
    world.cloud.Follow();
    model.NoteKernel();
}

void ApplicationProgram::Weather() {
    sim.Wait("wait for the application", [] { return CanRaise(); });
    const int longest = random.OneIn(2) ? 12'000 : 3000;
    for (int count = random.Between(0, 16); count > 0; --count) {
        for (int burst = random.OneIn(4) ? random.Between(2, 6) : 1; burst > 0; --burst) {
            Act();
            if (random.OneIn(2))
                sim.Step("something has changed");
        }
        if (!random.OneIn(4))
            sim.Sleep(static_cast<Time>(random.Below(random.OneIn(3) ? 300 : static_cast<unsigned>(longest))) *
                      MILLISECOND);
    }
    if (!random.OneIn(3))
        Collect();
    model.Terminated();
    Raise(random.OneIn(4) ? SIGINT : SIGTERM);
}

void ApplicationProgram::Act() {
    switch (random.Weighted({8, 6, 4, 4, 6, 2, 4, 4, 1})) {
    case 0:
        weather.Act();
        return Follow();
    case 1:
        return ActOnCloud();
    case 2:
        return ActOnLibrary();
    case 3:
        return ActOnFiles();
    case 4:
        return Outage();
    case 5:
        return manager.Change();
    case 6:
        return Signal();
    case 7:
        return StartSecond();
    default:
        return SendMessage();
    }
}

void ApplicationProgram::ActOnCloud() {
    switch (random.Below(6)) {
    case 0:
        return world.resolver.SetMood(static_cast<Resolver::Mood>(random.Below(4)));
    case 1:
        return world.cloud.SetWay(random.OneIn(2), random.OneIn(2));
    default:
        return world.cloud.Trouble();
    }
}

void ApplicationProgram::ActOnLibrary() {
    library.broker = random.OneIn(2) ? StackLibrary::Broker::THERE : static_cast<StackLibrary::Broker>(random.Below(3));
}

void ApplicationProgram::ActOnFiles() {
    model.CsvIsTouched();
    switch (random.Below(4)) {
    case 0:
        return files.Remove(FakeFiles::CSV);
    case 1:
        return SetFull(!files.full);
    default:
        files.Put(FakeFiles::CSV, "another program's");
        return;
    }
}

void ApplicationProgram::SetFull(bool full) {
    model.NoteRoom();
    files.full = full;
    model.NoteRoom();
}

/// Ethernet's provider is dead for longer than it takes to move, or Cellular's.
void ApplicationProgram::Outage() {
    const std::size_t index = random.OneIn(4) ? 1 : 0;
    dead[index] = !dead[index];
    Follow();
    if (random.OneIn(2))
        sim.Sleep(static_cast<Time>(random.Between(13, 35)) * SECOND);
}

void ApplicationProgram::Signal() {
    if (random.OneIn(4))
        return Raise(SIGUSR1);
    if (!random.OneIn(3))
        WriteOptions(true);
    Raise(SIGHUP);
}

void ApplicationProgram::SendMessage() {
    using OrvStackSdk::AppAction;
    for (int count = random.OneIn(4) ? random.Between(2, 12) : 1; count > 0; --count) {
        switch (random.Below(4)) {
        case 0:
            library.Deliver([this](auto& handler) {
                if (!library.IsBooting())
                    handler.OnAppActionIndication(AppAction::RELOAD);
            });
            break;
        case 1:
            library.Deliver([](auto& handler) { handler.OnAppActionIndication(AppAction::ENABLED); });
            break;
        case 2:
            library.Deliver([](auto& handler) { handler.OnDeviceOnlineStatusIndication(true); });
            break;
        default:
            library.Deliver([](auto& handler) { handler.OnFeatureShutdownReadinessIndication("other", false); });
            break;
        }
    }
}

/// As gateway-app does it that is started a second time.
void ApplicationProgram::StartSecond() {
    try {
        const GatewayApp::InstanceLock second(FakeFiles::LOCK);
    } catch (const GatewayApp::AnotherInstance&) {
        return;
    }
    sim.Fail("lets a second one onto the gateway");
}

/// Ethernet's provider dies and comes back, and everybody else is well.
void ApplicationProgram::FailOver() {
    if (library.Where() != StackLibrary::State::ETHERNET || model.Route() != "eth0" || model.Connected() != "eth0" ||
        model.OnProbation() || !model.TicksByTheSituation())
        return;
    // A link that was renamed has taken the other one's address along.
    const NetworkModel network{world.kernel, sim.Now()};
    if (network.OwnerOf(SourceOf("eth0", false)) != "eth0" || network.OwnerOf(SourceOf("wwan0", false)) != "wwan0")
        return;
    sim.Trace("Ethernet's provider dies");
    dead[0] = true;
    Follow();
    sim.Sleep(FAILED_OVER);
    if (model.Connected() != "wwan0" || model.Route() != "wwan0")
        sim.Fail("is not connected over Cellular though Ethernet is dead");
    sim.Trace("Ethernet's provider is back");
    dead[0] = false;
    Follow();
    if (model.OnProbation()) {
        if (model.Probations() > 1)
            return; // a longer one
        sim.Sleep(20 * SECOND);
        if (!model.OnProbation())
            sim.Fail("takes Ethernet for proved after 20 s");
        sim.Sleep(PROVED - 20 * SECOND);
    } else {
        sim.Sleep(RETURNED);
    }
    if (model.Connected() != "eth0" || model.Route() != "eth0")
        sim.Fail("is not connected over Ethernet again though that is well");
}

/// Nothing happens any more.
void ApplicationProgram::Rest() {
    if (library.Where() != StackLibrary::State::ETHERNET || model.OnProbation() ||
        model.IsConnected() != model.WantsCloud())
        return;
    const std::uint64_t generation = world.kernel.Generation();
    const ApplicationModel::Efforts before = model.Done();
    const int asked = world.resolver.Asked();
    const std::uint64_t rounds = Rounds();
    sim.Sleep(30 * SECOND);
    if (world.kernel.Generation() != generation || !model.WantsCloud())
        return;
    if (model.Done().events != before.events || model.Done().records != before.records)
        sim.Fail("tells of something, and nothing has happened");
    if (world.resolver.Asked() != asked)
        sim.Fail("looks for the cloud that it is connected to");
    if (model.Done().statusWrites - before.statusWrites > 4)
        sim.Fail("writes its status file, and nothing has happened");
    if (Rounds() - rounds > 30 * 20)
        sim.Fail("polls busily: " + std::to_string(Rounds() - rounds) + " times in 30 s");
}

/// Everybody is well again.
void ApplicationProgram::Collect() {
    sim.DisableStalls();
    quiet = true;
    library.pokesAreQuick = true;
    world.resolver.Heal();
    world.cloud.Heal();
    world.faultyFiles = 0;
    SetFull(false);
    library.broker = StackLibrary::Broker::THERE;
    dead[0] = dead[1] = false;
    weather.Settle();
    manager.Heal();
    Follow();
    sim.Sleep(WELL_AGAIN);
    if (!model.IsReady())
        sim.Fail("has no session with the gateway's broker, and nothing is in its way");
    const bool wanted = model.WantsCloud();
    if (sim.Now() - model.MovedAt() < RETURNED)
        sim.Sleep(RETURNED); // a return from probation, whose connection is on its way
    if (model.IsConnected() != wanted)
        sim.Fail(wanted ? "is not connected to the cloud, and nothing is in its way"
                        : "is connected to a cloud that there is none of");
    for (int count = wanted ? random.Between(0, 2) : 0; count > 0; --count)
        FailOver();
    if (random.OneIn(2))
        Rest();
}

void ApplicationProgram::End() {
    sim.DisableStalls();
    world.resolver.SetMood(Resolver::Mood::QUICK);
    sim.Sleep(LAST_LOOK_UP); // those that cannot be interrupted
    if (sim.ThreadsAlive() != 1)
        sim.Fail("a thread is left");
    if (GatewayApp::CloudDialer::Helpers() != 0 || GatewayApp::PathProver::Helpers() != 0)
        sim.Fail("helpers are counted, and there is none");
    if (world.clients != 0 || !world.tlsContexts.empty())
        sim.Fail(std::to_string(world.clients) + " clients of the MQTT library are left, " +
                 std::to_string(world.tlsContexts.size()) + " contexts of TLS");
    if (Descriptors::Of().Count() != 0)
        sim.Fail("a descriptor is left");
    try {
        const GatewayApp::InstanceLock next(FakeFiles::LOCK);
    } catch (const GatewayApp::AnotherInstance&) {
        sim.Fail("keeps its lock behind its end");
    }
}

} // namespace OrvLab
