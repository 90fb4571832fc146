// SPDX-License-Identifier: Apache-2.0
#include "FakeBroker.h"

#include "FakeBrokerState.h"

namespace {

using OrvPlatformFake::FakeBroker;
using OrvPlatformFake::Journal;
using OrvPlatformFake::BrokerState::Client;
using OrvPlatformFake::BrokerState::State;
using OrvPlatformFake::BrokerState::Will;
namespace Entry = OrvPlatformFake::Entry;

State& Broker() {
    static State state;
    return state;
}

std::vector<std::string> Levels(const std::string& topic) {
    std::vector<std::string> levels{""};
    for (const char c : topic) {
        if (c == '/')
            levels.emplace_back();
        else
            levels.back() += c;
    }
    return levels;
}

} // namespace

namespace QUILMQTT {

class QueueOwner::Core : public Client {};

QueueOwner::QueueOwner(const std::string& clientId) : core(std::make_shared<Core>()) {
    core->owner = this;
    core->id = clientId;
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Broker().clients.push_back(core);
}

QueueOwner::~QueueOwner() {
    State& broker = Broker();
    std::unique_lock<std::mutex> lock(broker.mutex);
    core->delivering = false;
    broker.AwaitCallback(lock, *core);
    broker.Drop(*core);
    core->owner = nullptr;
    broker.clients.erase(std::remove(broker.clients.begin(), broker.clients.end(), core), broker.clients.end());
}

void QueueOwner::OnPublish(const std::string&, const std::string&) {}

void QueueOwner::OnConnect() {}

void QueueOwner::OnDeliveryCompleted(const std::string&) {}

bool QueueOwner::Connect() {
    return Broker().Connect(*core, std::nullopt);
}

bool QueueOwner::Connect(const std::string& willTopic, const std::string& willMessage, bool willRetained) {
    return Broker().Connect(*core, Will{willTopic, willMessage, willRetained});
}

bool QueueOwner::Subscribe(const std::string& filter, int qos) {
    State& broker = Broker();
    const std::lock_guard<std::mutex> lock(broker.mutex);
    Journal::Add(Entry::Subscribe(core->id, filter, qos));
    if (!core->connected)
        return false;
    core->filters.push_back(filter);
    broker.Subscribe(core, filter);
    return true;
}

int QueueOwner::PublishMessage(const std::string& topic, const std::string& payload, bool assured) {
    Journal::Add(Entry::Publish(core->id, topic, payload, assured));
    return Broker().Publish(*core, topic, payload, false, assured);
}

int QueueOwner::PublishRetainedMessage(const std::string& topic, const std::string& payload, bool assured) {
    Journal::Add(Entry::PublishRetained(core->id, topic, payload, assured));
    return Broker().Publish(*core, topic, payload, true, assured);
}

bool QueueOwner::Disconnect() {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Journal::Add(Entry::Disconnect(core->id));
    core->filters.clear();
    core->dropped = false;
    return std::exchange(core->connected, false);
}

void QueueOwner::StopDelivery() noexcept {
    std::unique_lock<std::mutex> lock(Broker().mutex);
    Journal::Add(Entry::StopDelivery(core->id));
    core->delivering = false;
    Broker().AwaitCallback(lock, *core);
}

} // namespace QUILMQTT

namespace OrvPlatformFake {

FakeBroker& FakeBroker::Get() {
    static FakeBroker broker;
    return broker;
}

void FakeBroker::Reset() {
    State& broker = Broker();
    const std::lock_guard<std::mutex> lock(broker.mutex);
    broker.reachable = true;
    broker.refused.clear();
    broker.publishStatus = 0;
    broker.publishHook = nullptr;
    broker.takenHook = nullptr;
    broker.waitingHook = nullptr;
    broker.clock = nullptr;
    broker.latency = std::chrono::milliseconds::zero();
    broker.retained.clear();
    broker.waiting.clear();
}

void FakeBroker::SetReachable(bool reachable) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Broker().reachable = reachable;
}

void FakeBroker::SetRefused(const std::string& clientId) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Broker().refused = clientId;
}

void FakeBroker::SetPublishStatus(int status) {
    State& broker = Broker();
    const std::lock_guard<std::mutex> lock(broker.mutex);
    broker.publishStatus = status;
    for (const auto& client : broker.clients)
        if (status == 0 && client->connected)
            broker.Announce(*client, false);
}

void FakeBroker::SetPublishHook(std::function<void(const std::string& topic)> hook) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Broker().publishHook = std::move(hook);
}

void FakeBroker::Inject(const std::string& topic, const std::string& payload, bool retained) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Broker().Accept("", topic, payload, retained);
}

void FakeBroker::SetTakenHook(std::function<void(const Taken&)> hook) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Broker().takenHook = std::move(hook);
}

void FakeBroker::SetWaitingHook(std::function<void()> hook) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Broker().waitingHook = std::move(hook);
}

void FakeBroker::SetLatency(std::chrono::milliseconds latency, std::function<std::chrono::milliseconds()> clock) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Broker().latency = latency;
    Broker().clock = std::move(clock);
}

std::optional<std::chrono::milliseconds> FakeBroker::NextDue() {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    if (Broker().waiting.empty())
        return std::nullopt;
    return Broker().waiting.front().due;
}

void FakeBroker::Deliver() {
    while (DeliverOne()) {
    }
}

bool FakeBroker::DeliverOne() {
    const auto next = Broker().Next();
    if (!next)
        return false;
    for (const auto& client : next->second)
        Broker().CallBack(*client, next->first);
    return true;
}

void FakeBroker::Stop() {
    State& broker = Broker();
    const std::lock_guard<std::mutex> lock(broker.mutex);
    broker.reachable = false;
    for (const auto& client : broker.clients)
        client->dropped = std::exchange(client->connected, false) || client->dropped;
    broker.waiting.clear();
    broker.retained.clear();
}

void FakeBroker::Start() {
    SetReachable(true);
}

void FakeBroker::DropConnections() {
    State& broker = Broker();
    const std::lock_guard<std::mutex> lock(broker.mutex);
    for (const auto& client : broker.clients)
        if (client->connected)
            broker.Drop(*client);
}

bool FakeBroker::RestoreConnections() {
    std::vector<std::string> ids;
    {
        const std::lock_guard<std::mutex> lock(Broker().mutex);
        for (const auto& client : Broker().clients)
            if (client->dropped && Broker().Takes(*client))
                ids.push_back(client->id);
    }
    for (const auto& id : ids)
        RestoreConnection(id);
    return !ids.empty();
}

void FakeBroker::DropConnection(const std::string& clientId) {
    State& broker = Broker();
    const std::lock_guard<std::mutex> lock(broker.mutex);
    for (const auto& client : broker.clients)
        if (client->id == clientId)
            broker.Drop(*client);
}

void FakeBroker::RestoreConnection(const std::string& clientId) {
    if (auto* owner = Broker().Restore(clientId))
        owner->OnConnect();
}

bool FakeBroker::HasRetained(const std::string& topic) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    return Broker().retained.count(topic) != 0;
}

std::string FakeBroker::Retained(const std::string& topic) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    const auto found = Broker().retained.find(topic);
    return found == Broker().retained.end() ? "" : found->second;
}

bool FakeBroker::IsConnected(const std::string& clientId) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    return std::any_of(Broker().clients.begin(), Broker().clients.end(),
                       [&](const auto& client) { return client->id == clientId && client->connected; });
}

bool FakeBroker::Matches(const std::string& filter, const std::string& topic) {
    const auto wanted = Levels(filter);
    const auto levels = Levels(topic);
    for (std::size_t i = 0; i < wanted.size(); ++i) {
        if (wanted[i] == "#")
            return true;
        if (i >= levels.size() || (wanted[i] != "+" && wanted[i] != levels[i]))
            return false;
    }
    return wanted.size() == levels.size();
}

} // namespace OrvPlatformFake
