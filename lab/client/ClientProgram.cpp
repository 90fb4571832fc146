// SPDX-License-Identifier: Apache-2.0
#include "client/ClientProgram.h"

#include "ConnInterfaceString.h"
#include "OrvStackSdk/OrvStackSdk.h"
#include "broker/Wire.h"
#include "client/Edge.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <stdexcept>
#include <utility>

namespace OrvLab {

namespace {

Story* present = nullptr;

/// What the last pointer ends is the library's.
template <typename Object>
void LetGo(std::shared_ptr<Object>& pointer) {
    std::shared_ptr<Object> last;
    last.swap(pointer);
    Watch([&] { last.reset(); });
}

} // namespace

ClientProgram::ClientProgram(Simulation& simulation, std::uint64_t seed)
    : Scene(simulation, seed), budget(random.Between(10, 90)), helpersTick(random.OneIn(2)) {
    if (random.OneIn(4))
        neighbour = std::make_unique<Neighbour>(witness, seed * 17 + 11);
    RouteReference::isShared = neighbour != nullptr;
    present = nullptr;
    Wire::onMessage = [](const std::string& whose, const Packet& message) {
        if (present != nullptr && whose.find(Neighbour::SUFFIX) == std::string::npos)
            present->Handed(message.topic, message.payload);
    };
    Edge::onPublished = [this] { return ReactAtRandom(); };
    witness.onEffect = [this](Call& call, const Effect& effect) {
        if (Neighbour::IsAtWork(sim))
            return;
        if (story == nullptr)
            sim.Fail("without a client it does: " + effect.what);
        story->Seen(call, effect);
    };
    witness.onEnd = [this](const std::shared_ptr<Call>& call) {
        if (!Neighbour::IsAtWork(sim))
            story->Returned(call);
    };
    witness.onDelivery = [this](const Effect& effect) {
        if (Neighbour::IsAtWork(sim))
            return;
        if (story == nullptr)
            sim.Fail("without a client it does: " + effect.what);
        story->Delivered(effect);
    };
}

ClientProgram::~ClientProgram() {
    Wire::onMessage = nullptr;
    present = nullptr;
}

void ClientProgram::Run() {
    // What all clients of a process have in common is as at its beginning.
    while (!client)
        Create();
    RouteReference::reported = false;
    Tick();
    Release(false);
    const int helpers = static_cast<int>(random.Weighted({2, 3, 2}));
    threadsLeft = 1 + helpers;
    std::vector<Simulation::Thread*> all;
    all.push_back(&sim.Start("application", [this] { ApplicationThread(); }));
    for (int number = 1; number <= helpers; ++number)
        all.push_back(&sim.Start("helper " + std::to_string(number), [this] { HelperThread(); }));
    all.push_back(&sim.Start("gateway", [this] { GatewayThread(); }));
    if (neighbour)
        all.push_back(&sim.Start("neighbour", [this] { neighbour->Live([this] { return threadsLeft > 0; }); }));
    for (Simulation::Thread* thread : all)
        sim.Join(*thread);
    Collect();
}

void ClientProgram::Pause() {
    constexpr int LONGEST[] = {5, 700, 4000, 25'000};
    sim.Sleep(static_cast<Time>(random.Below(static_cast<unsigned>(LONGEST[random.Weighted({4, 6, 3, 1})]))) *
              MILLISECOND);
}

void ClientProgram::ApplicationThread() {
    for (int acts = random.Between(5, 60); acts > 0 && budget > 0; --acts) {
        if (random.OneIn(4))
            Pause();
        ActAtRandom(false);
    }
    isApplicationRunning = false;
    --threadsLeft;
}

// Reports events, ticks and asks at its own pace, as every thread may.
void ClientProgram::HelperThread() {
    const Time period = static_cast<Time>(random.Between(50, 2500)) * MILLISECOND;
    while (isApplicationRunning && budget > 0) {
        if (random.OneIn(3))
            Report(static_cast<int>(random.Below(random.OneIn(9) ? 13 : 12)));
        if (helpersTick) {
            Tick();
            Ask();
        }
        sim.Sleep(random.OneIn(5) ? static_cast<Time>(random.Below(20)) * MILLISECOND : period);
    }
    --threadsLeft;
}

template <typename Body>
std::shared_ptr<Call> ClientProgram::Watched(Call::Kind kind, const std::string& name, const std::string& text,
                                             int value, Time limit, Body body) {
    Client held = client;
    Races::Acquire(&client); // whoever made it has handed it over
    auto call = witness.Begin(kind, name, limit);
    call->text = text;
    call->value = value;
    call->handlerThere = story->handlerThere;
    ++calls;
    try {
        Watch([&] { body(*held, *call); });
    } catch (const std::out_of_range&) {
        call->threw = true;
    } catch (const std::runtime_error&) {
        call->threw = true;
    }
    --calls;
    witness.End(call);
    LetGo(held);
    return call;
}

// In a callback, what is allowed in one.
void ClientProgram::ActAtRandom(bool inCallback) {
    --budget;
    if (!client) {
        if (!inCallback && !isReleasing)
            Create();
        return;
    }
    switch (random.Weighted({3, 1, 1, 1, 10, 10, 6, 1})) {
    case 0:
        if (!inCallback)
            Init();
        break;
    case 1:
        DeInit();
        break;
    case 2:
        if (random.OneIn(2))
            Release(inCallback && !isHeldByInit && isConfirming);
        break;
    case 3:
        ReleaseHandler();
        break;
    case 4:
        RequestAtRandom();
        break;
    case 5:
        Report(AnyNumber(random.OneIn(9) ? 13 : 12));
        break;
    case 6:
        Tick();
        Ask();
        break;
    default:
        Watched(Call::Kind::OTHER, random.OneIn(2) ? "Start" : "Stop", "", 0, 0,
                [](auto& one, Call& call) { call.name == "Start" ? one.Start() : one.Stop(); });
        break;
    }
}

// The former client is gone for good before, so that all that is seen is this one's.
void ClientProgram::Create() {
    AwaitQuiet();
    stories.push_back(std::make_unique<Story>(witness, static_cast<int>(stories.size()) + 1));
    story = present = stories.back().get();
    const auto call = witness.Begin(Call::Kind::CREATE, "CreateClient", INIT_LIMIT);
    Client made;
    try {
        made = Watch([] { return OrvStackSdk::CreateClient(); });
    } catch (const std::runtime_error& error) {
        call->threw = error.what() == std::string("OrvRoute cannot connect to MQTT broker.");
    }
    witness.End(call);
    if (!made)
        return;
    client = std::move(made);
    Races::Release(&client);
    if (random.OneIn(12))
        return;
    ReleaseHandler();
    handler = std::make_shared<LabHandler>(*this);
    Watched(Call::Kind::OTHER, "SetHandler", "", 0, 0, [&](auto& one, Call&) { one.SetHandler(handler); });
    story->HandlerIs(true);
}

// Not while messages may arrive, whose delivery reads the name: also one that is held up before or behind all that is
// seen of it.
void ClientProgram::Init() {
    const auto mayDeliver = [this] { return IsInUse() || Edge::IsAThreadHeldUp(); };
    if (story->isUp)
        DeInit();
    while (mayDeliver())
        sim.Sleep(10 * MILLISECOND);
    sim.Sleep(static_cast<Time>(random.Below(100)) * MILLISECOND);
    if (!client || isReleasing || story->isUp || mayDeliver())
        return;
    const std::string NAMES[] = {"app",
                                 "App",
                                 "shutdown_readiness",
                                 "a+b",
                                 "\xff",
                                 "eine-andere",
                                 "",
                                 "a/b",
                                 std::string("a\0b", 3),
                                 std::string(70'000, 'n')};
    const std::string name = NAMES[random.Weighted({24, 4, 2, 2, 2, 4, 1, 1, 1, 1})];
    Edge::ComesBehindTheThreads();
    isInInit = true;
    story->Connects(name);
    if (random.OneIn(3)) {
        // Nobody but the application holds it, and the confirmation may let go of it.
        auto call = witness.Begin(Call::Kind::OTHER, "Init", INIT_LIMIT + RELEASE_LIMIT);
        call->text = name;
        call->handlerThere = story->handlerThere;
        ++calls;
        isHeldByInit = false;
        Watch([&] { client->Init(name); });
        isHeldByInit = true;
        --calls;
        witness.End(call);
    } else {
        Watched(Call::Kind::OTHER, "Init", name, 0, INIT_LIMIT, [&](auto& one, Call&) { one.Init(name); });
    }
    isInInit = false;
}

void ClientProgram::DeInit() {
    story->DeliveryIsInterrupted();
    const unsigned inits = story->Inits();
    Watched(Call::Kind::OTHER, "DeInit", "", 0, DEINIT_LIMIT, [](auto& one, Call&) { one.DeInit(); });
    if (!isInInit && inits == story->Inits())
        story->IsDisconnected();
}

// While Init is under way, only its own confirmation may let go of the client.
void ClientProgram::Release(bool inConfirmation) {
    if ((isInInit && !inConfirmation) || isReleasing)
        return;
    isReleasing = true;
    story->DeliveryIsInterrupted();
    const auto call = witness.Begin(Call::Kind::RELEASE, "the release", RELEASE_LIMIT);
    LetGo(client);
    witness.End(call);
    isReleasing = false;
}

void ClientProgram::ReleaseHandler() {
    if (!handler)
        return;
    story->HandlerIs(false);
    LetGo(handler);
}

void ClientProgram::Report(int event) {
    if (!client)
        return;
    if (event == 12 && random.OneIn(2))
        return;
    const auto call = Watched(Call::Kind::EVENT, "EventUpdateRequest", "", event, 0, [&](auto& one, Call&) {
        one.EventUpdateRequest(static_cast<OrvStackSdk::OrvEvent>(event));
    });
    if (call->threw != (event < 0 || event > 12))
        sim.Fail("the event " + std::to_string(event) + (call->threw ? " throws" : " does not throw"));
}

void ClientProgram::Tick() {
    if (!client)
        return;
    const std::chrono::milliseconds elapsed(random.Between(-10, 1000));
    Watched(Call::Kind::TICK, "Tick", "", 0, 0, [&](auto& one, Call& call) {
        one.Tick(elapsed);
        if (!helpersTick && !neighbour) // or another thread may write it
            call.path = ConnInterfaceString;
    });
}

void ClientProgram::Ask() {
    if (!client || isAsking)
        return;
    isAsking = true;
    Watched(Call::Kind::RECONNECT, "CloudReconnectNeeded", "", 0, 0,
            [](auto& one, Call& call) { call.answer = one.CloudReconnectNeeded(); });
    isAsking = false;
}

/// Below the limit; at times one that is no enumerator, and would be one if it were cut to fewer bits.
int ClientProgram::AnyNumber(unsigned limit) {
    constexpr int WRONG[] = {-1, std::numeric_limits<int>::min(), std::numeric_limits<int>::max(), 256, 65536 + 1};
    if (random.OneIn(20))
        return random.OneIn(3) ? static_cast<int>(limit) : WRONG[random.Below(5)];
    return static_cast<int>(random.Below(limit));
}

void ClientProgram::RequestAtRandom() {
    using namespace OrvStackSdk;
    const int value = AnyNumber(7);
    const int action = value >= 0 && value < 7 ? value % 5 : value;
    const std::string text = AnyText();
    std::shared_ptr<Call> call;
    bool isWrong = false;
    switch (random.Below(5)) {
    case 0:
        isWrong = value < 0 || value > 6;
        call = Watched(Call::Kind::OTHER, "AppStatusRequest", "", value, 0,
                       [&](auto& one, Call&) { one.AppStatusRequest(static_cast<AppStatus>(value)); });
        break;
    case 1:
        isWrong = action < 0 || action > 3;
        call = Watched(Call::Kind::OTHER, "AppActionRequest", random.OneIn(2) ? story->feature : "other", action, 0,
                       [&](auto& one, Call& made) { one.AppActionRequest(made.text, static_cast<AppAction>(action)); });
        break;
    case 2:
        call = Watched(Call::Kind::OTHER, "RequestShutdown", "", 0, 0, [](auto& one, Call&) { one.RequestShutdown(); });
        break;
    case 3:
        call = Watched(Call::Kind::OTHER, "PanelCommandRequest", text, value == 0 ? AnyNumber(9) : value, 0,
                       [&](auto& one, Call& made) { one.PanelCommandRequest(text, made.value); });
        break;
    default:
        call = Watched(Call::Kind::OTHER, "SendConnectionStatus", text, 0, 0,
                       [&](auto& one, Call&) { one.SendConnectionStatus(text); });
        break;
    }
    if (call->threw != isWrong)
        sim.Fail(call->name + " with " + std::to_string(value) + (isWrong ? " does not throw" : " throws"));
}

bool ClientProgram::IsInUse() const {
    return calls != 0 || callbacks != 0 || (story->IsDelivering() && !story->IsCutShort());
}

void ClientProgram::AwaitQuiet() {
    while (story != nullptr && (IsInUse() || (!story->isGone && !client) || Edge::LivingOwners() != (client ? 2U : 0U)))
        sim.Sleep(10 * MILLISECOND);
    if (!client)
        transfers.Forget();
}

void ClientProgram::Called(const std::string& what, bool isConfirmation) {
    const Unwatched unwatched;
    ++callbacks;
    isConfirming = isConfirmation;
    witness.BeginCallback(what);
    sim.Step("callback");
    if (!isCollecting && budget > 0 && random.OneIn(3)) {
        if (random.OneIn(3))
            Pause();
        if (isConfirmation && !isHeldByInit && random.OneIn(3))
            Release(true);
        if (client && !(isConfirmation && random.OneIn(2)))
            ActAtRandom(true);
    }
    sim.Step("return from the callback");
    witness.EndCallback();
    --callbacks;
    isConfirming = false;
}

} // namespace OrvLab
