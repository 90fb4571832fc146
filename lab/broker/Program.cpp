// SPDX-License-Identifier: Apache-2.0
#include "broker/Program.h"

#include "broker/ClientIdSuffix.h"
#include "broker/OutstandingPublications.h"
#include "broker/Wire.h"
#include "config/GatewayConfig.h"
#include "sim/LabLog.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace OrvLab {

namespace {

Program* program = nullptr;

constexpr int MOST_CLIENTS = 8;
constexpr std::size_t LITTLE_ROOM = 900;
constexpr const char* TOPIC_OF_MESSAGES = "in/a";

OrvPlatform::GatewayConfig& Settings() {
    static OrvPlatform::GatewayConfig settings;
    return settings;
}

} // namespace

Program::Program(Simulation& simulation, std::uint64_t seed)
    : sim(simulation), broker(simulation, seed * 3 + 7), random(seed * 5 + 3), budget(random.Between(8, 60)) {
    program = this;
    LabLog::longestStall = random.OneIn(4) ? static_cast<Time>(random.Between(1, 3000)) * MILLISECOND : 0;
    slots.resize(1 + random.Below(2));
    Settings() = {};
    Settings().broker.clientIdSuffix.clear();
    hasLittleRoom = random.OneIn(3);
    if (hasLittleRoom)
        Settings().broker.maxOutstandingBytes = LITTLE_ROOM;
    Wire::Reset();
    Wire::broker = &broker;
    Wire::onPublish = Handed;
    Wire::isAttended = [](const std::string& client) {
        const Model* model = program->Find(client);
        return model != nullptr && model->IsAttended();
    };
    Wire::lastId = random.OneIn(3) ? 65530 : 0;
    sim.SetSurroundings(&broker);
    sim.SetJumpListener([this](Time by) {
        Wire::Jumped(by);
        for (WatchedCall* call : calls)
            call->Jumped(by);
    });
}

Program::~Program() {
    Wire::broker = nullptr;
    program = nullptr;
}

Model* Program::Find(const std::string& name) {
    const auto found = std::find_if(models.begin(), models.end(), [&](const auto& one) { return one->name == name; });
    return found == models.end() ? nullptr : found->get();
}

void Program::Handed(const std::string& client, const Packet& publication) {
    if (Model* model = program->Find(client))
        model->Handed(publication);
}

void Program::Run() {
    const int threads = random.Between(1, 4);
    threadsLeft = threads;
    std::vector<Simulation::Thread*> all;
    for (int number = 1; number <= threads; ++number)
        all.push_back(&sim.Start("application " + std::to_string(number), [this] { ApplicationThread(); }));
    all.push_back(&sim.Start("broker", [this] { BrokerThread(); }));
    for (Simulation::Thread* thread : all)
        sim.Join(*thread);
    Collect();
}

void Program::RunTogether(const std::vector<std::function<void(LabClient& client)>>& bodies) {
    budget = 0;
    std::shared_ptr<LabClient> client = Make();
    std::vector<Simulation::Thread*> all;
    for (const auto& body : bodies)
        all.push_back(&sim.Start("application " + std::to_string(all.size() + 1), [&] { body(*client); }));
    for (Simulation::Thread* thread : all)
        sim.Join(*thread);
    client.reset();
    CheckNothingIsLeft();
}

void Program::ApplicationThread() {
    const int acts = random.Between(3, 14);
    for (int act = 0; act < acts && budget > 0; ++act) {
        if (random.OneIn(4))
            Pause();
        if (random.OneIn(20))
            TakeNumber();
        ActAtRandom(nullptr);
    }
    --threadsLeft;
}

/// As a client does that is made.
void Program::TakeNumber() {
    const std::string number = Watch([] { return OrvPlatform::ClientIdSuffix("%n", "twin", "lab"); });
    if (!numbers.insert(number).second)
        sim.Fail("two clients of one id have the number " + number);
}

void Program::BrokerThread() {
    using Behaviour = ScriptedBroker::Behaviour;
    constexpr Behaviour BEHAVIOURS[] = {Behaviour::HEALTHY, Behaviour::FLAKY, Behaviour::REFUSING, Behaviour::FROZEN,
                                        Behaviour::DOWN};
    broker.SetBehaviour(BEHAVIOURS[random.Weighted({4, 4, 0, 0, 1})]);
    while (threadsLeft > 0) {
        sim.Sleep(static_cast<Time>(random.Below(random.OneIn(3) ? 4000 : 200)) * MILLISECOND);
        switch (random.Weighted({8, 3, 2, 1})) {
        case 0:
            broker.Send(TOPIC_OF_MESSAGES);
            break;
        case 1:
            broker.SetBehaviour(BEHAVIOURS[random.Weighted({6, 4, 1, 2, 2})]);
            break;
        case 2:
            broker.DropAll();
            break;
        default:
            broker.Restart();
            break;
        }
    }
}

void Program::Pause() {
    constexpr int LONGEST[] = {5, 300, 2500, 9000};
    sim.Sleep(static_cast<Time>(random.Below(static_cast<unsigned>(LONGEST[random.Weighted({4, 3, 2, 1})]))) *
              MILLISECOND);
}

std::shared_ptr<LabClient> Program::Make() {
    models.push_back(
        std::make_unique<Model>(sim, static_cast<int>(models.size()) + 1, Settings().broker.maxOutstandingBytes));
    Model& model = *models.back();
    auto* made = Watch([&] { return new LabClient(*this, model); });
    Races::Release(made); // as whoever hands it to another thread must
    return {made, [&model](LabClient* client) {
                Races::Acquire(&model); // after all calls, as the last of those who shared it
                Watch([&] { delete client; });
            }};
}

// In a callback only on the client that was called, which is there until it returns. Elsewhere a share of it is held.
void Program::ActAtRandom(LabClient* called) {
    if (called != nullptr && inCallbacks) {
        inCallbacks(*called);
        return;
    }
    if (called != nullptr && (isCollecting || budget <= 0 || !random.OneIn(4)))
        return;
    --budget;
    if (called != nullptr) {
        if (random.OneIn(4))
            Pause();
        for (auto& slot : slots)
            if (slot.get() == called) {
                Act(*called, slot, true);
                return;
            }
        return;
    }
    auto& slot = slots[random.Below(static_cast<unsigned>(slots.size()))];
    if (!slot) {
        if (models.size() >= MOST_CLIENTS)
            return;
        auto made = Make();
        if (!slot)
            slot = made;
    }
    const std::shared_ptr<LabClient> client = slot;
    if (client)
        Act(*client, slot, false);
}

void Program::ThrowAtRandom() {
    class OfItsOwn {};
    if (isCollecting || inCallbacks || budget <= 0 || !random.OneIn(12))
        return;
    switch (random.Below(3)) {
    case 0:
        throw std::runtime_error("from a callback");
    case 1:
        throw OfItsOwn();
    default:
        throw 1;
    }
}

void Program::Act(LabClient& client, std::shared_ptr<LabClient>& slot, bool inCallback) {
    const Model& model = client.Story();
    Races::Acquire(&client);
    switch (random.Weighted({6, 3, 4, 14, 1, 2})) {
    case 0:
        client.ConnectAsked(random.OneIn(2));
        break;
    case 1:
        client.DisconnectAsked();
        break;
    case 2:
        SubscribeAtRandom(client);
        break;
    case 3:
        for (unsigned count = 1 + random.Below(4); count > 0; --count)
            PublishAtRandom(client);
        break;
    case 4:
        client.StopAsked();
        break;
    default:
        // Whoever holds the last share destroys it; in its own callback it may be this one.
        if (!inCallback || random.OneIn(2))
            std::shared_ptr<LabClient>().swap(slot);
        break;
    }
    Races::Release(&model);
}

void Program::SubscribeAtRandom(LabClient& client) {
    const std::string filter = random.OneIn(5) ? "refused/b" : TOPIC_OF_MESSAGES;
    client.SubscribeAsked(filter, static_cast<int>(random.Below(2)));
}

void Program::PublishAtRandom(LabClient& client) {
    const std::string number = std::to_string(++payloads);
    const std::string whose = std::to_string(client.Story().number);
    // One after the other: compilers differ in the order in which they evaluate arguments.
    const bool assured = random.OneIn(2);
    const bool retained = random.OneIn(2);
    const std::string topic = std::to_string(random.Below(hasLittleRoom ? 4 : 2));
    const bool deletes = random.OneIn(hasLittleRoom ? 4 : 12);
    const std::string value = "v" + number + Padding();
    switch (random.Weighted({6, 5, 2, 1})) {
    case 0:
        client.PublishAsked("p/" + number, value, false, assured);
        break;
    case 1:
        client.PublishAsked("r" + whose + "/" + topic, deletes ? std::string() : value, true, assured);
        break;
    case 2:
        client.PublishAsked("w" + whose, value, retained, assured);
        break;
    default:
        client.PublishAsked("+", value, retained, assured);
        break;
    }
}

/// Where there is little room: much of it, and now and then more than there is.
std::string Program::Padding() {
    if (!hasLittleRoom || !random.OneIn(4))
        return "";
    const std::size_t most = LITTLE_ROOM - OrvPlatform::OutstandingPublications::Cost("", "");
    return std::string(random.OneIn(4) ? most - random.Below(12) : random.Below(static_cast<unsigned>(most)), 'x');
}

/// For much longer than any pause between two attempts, of which there are neither too many nor too few.
void Program::StayAway() {
    constexpr Time SO_LONG = 600 * SECOND;
    constexpr int MOST = 600;
    constexpr int LEAST = 30;
    constexpr Time CALLS_RETURN = 5 * SECOND;
    broker.SetBehaviour(ScriptedBroker::Behaviour::DOWN);
    broker.DropAll();
    sim.Sleep(CALLS_RETURN);
    const auto clients = std::count_if(slots.begin(), slots.end(), [](const auto& slot) { return slot != nullptr; });
    const int before = broker.Attempts();
    sim.Sleep(SO_LONG);
    const int attempts = broker.Attempts() - before;
    // A callback that was under way may have destroyed one.
    const auto up =
        std::count_if(slots.begin(), slots.end(), [](const auto& slot) { return slot && slot->Story().IsKnownUp(); });
    if (attempts > MOST * clients || attempts < LEAST * up)
        sim.Fail(std::to_string(attempts) + " attempts to reach a broker that is away for ten minutes");
}

void Program::Collect() {
    isCollecting = true;
    constexpr Time SETTLED = 20 * SECOND;
    LabLog::longestStall = 0;
    sim.DisableStalls();
    if (random.OneIn(12))
        StayAway();
    broker.Heal();
    sim.Sleep(SETTLED);
    for (const auto& slot : slots)
        if (slot)
            slot->Story().CheckSettled(broker);
    CheckRoom();
    std::vector<int> connects;
    for (const auto& model : models)
        connects.push_back(model->connects);
    broker.DropAll();
    sim.Sleep(SETTLED);
    for (const auto& slot : slots) {
        if (!slot || !slot->Story().IsKnownUp())
            continue;
        Model& story = slot->Story();
        const Connection* connection = broker.Of(story.name);
        if (connection == nullptr)
            sim.Fail(story.name + ": has not reconnected");
        story.CheckRestored(*connection, broker);
        if (story.delivery == Model::Delivery::ON &&
            story.connects == connects[static_cast<std::size_t>(story.number) - 1])
            sim.Fail(story.name + ": no OnConnect after a reconnection");
    }
    broker.Send(TOPIC_OF_MESSAGES);
    sim.Sleep(SECOND);
    for (const auto& slot : slots) {
        const Connection* connection = slot ? broker.Of(slot->Story().name) : nullptr;
        if (connection != nullptr)
            slot->Story().CheckReceived(*connection);
    }
    CheckRoom();
    for (auto& slot : slots) {
        if (slot)
            CollectFrom(*slot);
        slot.reset();
    }
    CheckNothingIsLeft();
}

/// Whatever has happened, it can still do everything.
void Program::CollectFrom(LabClient& client) {
    Model& story = client.Story();
    const int before = story.connects;
    if (!client.ConnectAsked(true))
        sim.Fail(story.name + ": does not connect to a healthy broker");
    if (!client.SubscribeAsked(TOPIC_OF_MESSAGES, 1))
        sim.Fail(story.name + ": does not subscribe at a healthy broker");
    const std::string last = "last" + std::to_string(story.number);
    if (client.PublishAsked("p/" + last, last, false, true) != 0)
        sim.Fail(story.name + ": does not publish at a healthy broker");
    sim.Sleep(SECOND);
    broker.Send(TOPIC_OF_MESSAGES);
    sim.Sleep(SECOND);
    story.CheckSettled(broker);
    const Connection* connection = broker.Of(story.name);
    story.CheckReceived(*connection);
    if (connection->messages != 1 || story.connects != before + 1)
        sim.Fail(story.name + ": was not told of a new connection and its message");
    if (random.OneIn(2) && !client.DisconnectAsked())
        sim.Fail(story.name + ": there was a connection to close");
}

/// Everything was acknowledged: there is room for as much as ever can be outstanding.
void Program::CheckRoom() {
    using QUILMQTT::QueueOwner;
    if (!hasLittleRoom)
        return;
    for (const auto& slot : slots) {
        if (!slot || !slot->Story().IsKnownUp())
            continue;
        const std::string topic = "p/" + std::to_string(++payloads);
        const std::string rest(LITTLE_ROOM - OrvPlatform::OutstandingPublications::Cost(topic, ""), 'x');
        const int larger = slot->PublishAsked(topic, rest + "x", false, true);
        const int fitting = slot->PublishAsked(topic, rest, false, true);
        if (larger != QueueOwner::PAYLOAD_TOO_LARGE || fitting != QueueOwner::HANDED_OVER)
            sim.Fail(slot->Story().name + ": with nothing outstanding, too much is answered by " +
                     std::to_string(larger) + ", and as much as fits in by " + std::to_string(fitting));
    }
    sim.Sleep(SECOND);
}

void Program::CheckNothingIsLeft() {
    sim.Sleep(SECOND);
    if (sim.ThreadsAlive() != 1)
        sim.Fail("a thread is left");
    if (Wire::Clients() != 0)
        sim.Fail("a client of the library is left");
    if (Descriptors::Of().Count() != 0)
        sim.Fail("a descriptor is left");
}

} // namespace OrvLab

namespace OrvPlatform {

const GatewayConfig& Config() {
    return OrvLab::Settings();
}

} // namespace OrvPlatform
