// SPDX-License-Identifier: Apache-2.0
#include "gateway/CloudProgram.h"

#include "gateway/EventFiles.h"
#include "sim/Descriptors.h"

#include <chrono>
#include <cstring>

namespace OrvLab {

using GatewayApp::CloudConnection;
using GatewayApp::CloudDialer;
using GatewayApp::CloudSettings;
using GatewayApp::EventLoop;
using GatewayApp::KeepAlive;
using GatewayApp::Mailbox;

namespace {

// The longest wait before an attempt, the attempt, and a broker that ended the connection to be noticed.
constexpr Time CONNECTED_AGAIN = 25 * SECOND;
constexpr Time LAST_LOOK_UP = 100 * SECOND;

} // namespace

CloudProgram::CloudProgram(Simulation& simulation, std::uint64_t seed)
    : sim(simulation), random(seed * 5 + 3), world(simulation, seed), model(world) {
    const std::vector<std::vector<std::string>> sets{
        {"198.51.100.1"},
        {"198.51.100.1", "198.51.100.2", "198.51.100.3"},
        {"2001:db8::1", "198.51.100.1"},
        {"2001:db8::1", "2001:db8::2", "198.51.100.1", "198.51.100.2"},
    };
    world.resolver.SetAddresses(sets[random.Below(4)]);
    world.cloud.SetShareOfTrouble(random.Below(9));
    world.faultyFiles = random.OneIn(4) ? 3 : 0;
    refusals = random.OneIn(3) ? static_cast<unsigned>(random.Between(1, 4)) : 0;
    sixIsDetour = random.OneIn(3);
    model.lookUps = [this] { return LookUps(); };
    model.isDetour = [this](const std::string& source) { return sixIsDetour && ScriptedCloud::IsSix(source); };
    sim.SetJumpListener([this](Time /*by*/) {
        if (!loop || !IsLoopIdle())
            return;
        model.TimeHasAdvanced();
        tasks->TimeHasAdvanced();
    });
    sim.SetStartListener([this] {
        const bool may = quiet || !random.OneIn(refusals);
        may ? model.LookUpBegins() : model.LookUpRefused();
        return may;
    });
}

int CloudProgram::LookUps() const {
    return static_cast<int>(sim.ThreadsAlive()) - ownThreads;
}

/// It waits for events, and nothing holds it up.
bool CloudProgram::IsLoopIdle() const {
    const Simulation::Thread* const thread = sim.Find(loopThread);
    return thread != nullptr && thread->isReady != nullptr && thread->stalledUntil <= sim.Now() &&
           std::strcmp(thread->doing, "epoll_wait") == 0;
}

void CloudProgram::Run() {
    loopThread = sim.Self().number;
    std::shared_ptr<Mailbox> box;
    Watch([&] {
        loop = std::make_unique<EventLoop>();
        box = std::make_shared<Mailbox>();
        loop->Watch(box->ReadyDescriptor(), EPOLLIN, [&box](std::uint32_t) { box->DoAll(); });
    });
    tasks = std::make_unique<Tasks>(sim, box, loopThread);
    Make();
    for (int number = random.Between(1, 3); number > 0; --number)
        Start("poster " + std::to_string(number), [this, number] { Poster(number); });
    Start("weather", [this] { Weather(); });
    Start("conductor", [this] { Conduct(); });
    Watch([&] { loop->Run(); });
    tasks->LoopEnds();
    Destroy();
    Watch([&] {
        loop->Forget(box->ReadyDescriptor());
        loop.reset();
        box.reset();
    });
    End();
}

void CloudProgram::Start(const std::string& name, std::function<void()> body) {
    ++ownThreads;
    started.push_back(&sim.Start(name, [this, body = std::move(body)] {
        body();
        --ownThreads;
    }));
}

CloudSettings CloudProgram::Settings(bool withHost) {
    CloudSettings made;
    made.host = withHost ? "cloud.example" : "";
    made.clientId = "lab";
    return made;
}

void CloudProgram::Make() {
    settings = Settings(!random.OneIn(8));
    CloudConnection::Handler handler;
    handler.onConnected = [this](const std::string& source) {
        InCallback("OnConnected " + source, [&] { model.Connected(source); });
    };
    handler.onLost = [this](const std::string& reason) { InCallback("OnLost " + reason, [&] { model.Lost(); }); };
    handler.onFailed = [this](const std::string& reason, std::chrono::milliseconds delay) {
        InCallback("OnFailed " + reason + ", " + std::to_string(delay.count()) + " ms", [&] { model.Failed(delay); });
    };
    handler.keepAlive = [this] {
        const Unwatched unwatched;
        model.AskedForKeepAlive(std::chrono::seconds(period));
        return KeepAlive(std::chrono::seconds(period));
    };
    handler.isDetour = [this](const std::string& source) {
        const Unwatched unwatched;
        return model.isDetour(source);
    };
    const auto jitter = [this] {
        const Unwatched unwatched;
        return static_cast<double>(random.Below(1000)) / 1000;
    };
    cloud = Watch([&] { return std::make_unique<CloudConnection>(*loop, settings, handler, jitter); });
}

void CloudProgram::InCallback(const std::string& name, const std::function<void()>& body) {
    const Unwatched unwatched;
    sim.Trace("  " + name);
    if (sim.Self().number != loopThread)
        sim.Fail(name + " on another thread than the loop's");
    if (!cloud)
        sim.Fail(name + " behind the end");
    if (sim.Self().locks != 0)
        sim.Fail(name + " under a lock");
    if (inCallback && depth == 0)
        sim.Fail(name + " inside another callback");
    body();
    const bool within = std::exchange(inCallback, true);
    const int before = std::exchange(depth, 0);
    if (!quiet && !within && random.OneIn(8))
        ActInCallback();
    depth = before;
    inCallback = within;
}

void CloudProgram::Call(const std::string& name, const std::function<void()>& call) {
    sim.Trace("  calls " + name);
    ++depth;
    Watch([&] { call(); });
    --depth;
    model.CameBack();
}

void CloudProgram::Open(bool withSettings) {
    if (withSettings)
        settings = Settings(quiet || !random.OneIn(5));
    model.Opens(!settings.host.empty());
    Call(settings.host.empty() ? "Reopen without a host" : "Reopen", [&] {
        if (withSettings)
            cloud->Reopen(settings, "the lab wants it");
        else
            cloud->Reopen("the lab wants it");
    });
}

void CloudProgram::Close() {
    model.Closes();
    Call("Close", [&] { cloud->Close(); });
    if (Watch([&] { return cloud->Connected(); }))
        sim.Fail("is connected behind Close");
}

void CloudProgram::Destroy() {
    if (!cloud)
        return;
    sim.Trace("  destroys it");
    model.Destroyed();
    auto doomed = std::move(cloud);
    Watch([&] { doomed.reset(); });
}

void CloudProgram::ActInCallback() {
    random.OneIn(3) ? Close() : Open(random.OneIn(3));
}

void CloudProgram::Act() {
    if (!cloud) {
        Make();
        return;
    }
    if (Watch([&] { return cloud->Connected(); }) != model.IsConnected())
        sim.Fail("does not know whether it is connected");
    switch (random.Weighted({5, 2, 1, 2})) {
    case 0:
        return Open(random.OneIn(3));
    case 1:
        return Close();
    case 2:
        return Destroy();
    default:
        period = random.OneIn(3) ? 1 : random.Between(2, 30);
        return;
    }
}

void CloudProgram::Poster(int number) {
    for (int count = random.Between(0, 8); count > 0; --count) {
        for (int more = random.OneIn(3) ? 3 : 1; more > 0; --more)
            tasks->Post("of " + std::to_string(number), [this] { Act(); });
        sim.Sleep(static_cast<Time>(random.Below(random.OneIn(3) ? 15'000 : 300)) * MILLISECOND);
    }
}

void CloudProgram::Weather() {
    for (int count = random.Between(0, 10); count > 0; --count) {
        sim.Sleep(static_cast<Time>(random.Below(random.OneIn(2) ? 6000 : 300)) * MILLISECOND);
        switch (random.Below(4)) {
        case 0:
            world.resolver.SetMood(static_cast<Resolver::Mood>(random.Below(4)));
            break;
        case 1:
            world.cloud.SetWay(random.OneIn(2), random.OneIn(2));
            break;
        default:
            world.cloud.Trouble();
            break;
        }
        sim.Step("the weather has changed");
    }
}

void CloudProgram::OnLoop(const std::string& name, std::function<void()> work) {
    bool done = false;
    tasks->Post(name, [&] {
        work();
        done = true;
    });
    sim.Wait("wait for the loop", [&] { return done; });
}

void CloudProgram::Conduct() {
    for (Simulation::Thread* thread : started)
        if (thread != &sim.Self())
            sim.Join(*thread);
    if (!random.OneIn(4))
        Collect();
    tasks->Post("quit", [this] { Watch([&] { loop->Quit(); }); });
}

/// Everybody is well again.
void CloudProgram::Collect() {
    sim.DisableStalls();
    world.resolver.Heal();
    world.cloud.Heal();
    world.faultyFiles = 0;
    const bool anew = random.OneIn(2);
    OnLoop("the last actions", [&] {
        quiet = true;
        if (!cloud)
            Make();
        if (model.IsClosed() || anew)
            Open(true);
    });
    sim.Sleep(CONNECTED_AGAIN + 2 * static_cast<Time>(period) * SECOND);
    CheckRest();
    if (random.OneIn(3)) {
        OnLoop("the last end", [&] { Close(); });
        const int asked = world.resolver.Asked();
        const std::uint64_t before = Rounds();
        sim.Sleep(60 * SECOND);
        if (world.resolver.Asked() != asked)
            sim.Fail("looks for the cloud behind Close");
        if (Rounds() - before > 20)
            sim.Fail("polls busily with nothing to do");
    }
}

/// It stands, stays, and is not much trouble.
void CloudProgram::CheckRest() {
    if (!model.IsConnected() || !cloud->Connected())
        sim.Fail("is not connected, and nothing is in its way");
    const std::uint64_t before = Rounds();
    sim.Sleep(30 * SECOND);
    if (!model.IsConnected())
        sim.Fail("does not stay connected, and nothing is in its way");
    const std::uint64_t rounds = Rounds() - before;
    if (rounds > 30 * 12)
        sim.Fail("polls busily: " + std::to_string(rounds) + " times in 30 s");
}

void CloudProgram::End() {
    sim.DisableStalls();
    const int asked = world.resolver.Asked();
    world.resolver.SetMood(Resolver::Mood::QUICK);
    sim.Sleep(LAST_LOOK_UP); // those that cannot be interrupted
    static_cast<void>(asked);
    if (sim.ThreadsAlive() != 1)
        sim.Fail("a thread is left");
    for (Simulation::Thread* thread : started)
        sim.Join(*thread); // they have used the mailbox
    Watch([&] { tasks.reset(); });
    if (CloudDialer::Helpers() != 0)
        sim.Fail(std::to_string(CloudDialer::Helpers()) + " look-ups are counted, and none is under way");
    if (world.clients != 0 || !world.tlsContexts.empty())
        sim.Fail(std::to_string(world.clients) + " clients of the MQTT library are left, " +
                 std::to_string(world.tlsContexts.size()) + " contexts of TLS");
    if (Descriptors::Of().Count() != 0)
        sim.Fail("a descriptor is left");
}

} // namespace OrvLab
