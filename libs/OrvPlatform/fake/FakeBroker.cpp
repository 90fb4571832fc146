// SPDX-License-Identifier: Apache-2.0
#include "FakeBroker.h"

#include "Journal.h"
#include "QuilMqtt/QueueOwner.h"
#include "broker/AnnouncedState.h"

#include <algorithm>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace {

using OrvPlatformFake::FakeBroker;
using OrvPlatformFake::Journal;
namespace Entry = OrvPlatformFake::Entry;

// More than any test keeps: what the limit does is the real one's matter.
constexpr std::size_t MOST_STATE = 1024 * 1024;

struct Will {
    std::string topic;
    std::string message;
    bool retained = false;
};

struct Client {
    QUILMQTT::QueueOwner* owner; // null once it is gone
    std::string id;
    bool connected = false;
    bool delivering = false;
    std::optional<Will> will;
    std::vector<std::string> filters;
    bool dropped = false; // and would be made again by itself
    OrvPlatform::AnnouncedState announced{MOST_STATE};

    bool Wants(const std::string& topic) const {
        return connected && delivering && std::any_of(filters.begin(), filters.end(), [&](const std::string& filter) {
                   return FakeBroker::Matches(filter, topic);
               });
    }
};

struct Message {
    std::shared_ptr<Client> receiver; // null: everyone who has subscribed
    std::string topic;
    std::string payload;
};

struct State {
    std::mutex mutex;
    bool reachable = true;
    int publishStatus = 0;
    std::function<void(const std::string&)> publishHook;
    std::map<std::string, std::string> retained;
    std::deque<Message> waiting;
    std::vector<std::shared_ptr<Client>> clients;

    void Accept(const std::string& topic, const std::string& payload, bool retain) {
        if (retain && payload.empty())
            retained.erase(topic);
        else if (retain)
            retained[topic] = payload;
        waiting.push_back({nullptr, topic, payload});
    }

    bool Connect(Client& client, std::optional<Will> will) {
        const std::lock_guard<std::mutex> lock(mutex);
        client.filters.clear();
        client.connected = reachable;
        client.delivering = reachable;
        client.dropped = false;
        client.will = std::move(will);
        client.announced.BeginSession(client.will ? client.will->topic : "");
        Journal::Add(client.will ? Entry::ConnectWithWill(client.id, client.will->topic, client.will->message,
                                                          client.will->retained, client.connected)
                                 : Entry::Connect(client.id, client.connected));
        return client.connected;
    }

    void Drop(Client& client) {
        if (client.connected && client.will) {
            Journal::Add(Entry::Will(client.id, client.will->topic, client.will->message));
            Accept(client.will->topic, client.will->message, client.will->retained);
        }
        client.dropped = std::exchange(client.connected, false);
    }

    /// Everything, or what has not been taken yet.
    void Announce(Client& client, bool everything) {
        for (auto& announcement : client.announced.All()) {
            if (everything || announcement.pending)
                Accept(announcement.topic, announcement.payload, announcement.retained);
            announcement.pending = false;
        }
    }

    void Subscribe(const std::shared_ptr<Client>& client, const std::string& filter) {
        // As real brokers do: a retained message comes once for every subscription that matches it.
        for (const auto& [topic, payload] : retained)
            if (FakeBroker::Matches(filter, topic))
                waiting.push_back({client, topic, payload});
    }

    QUILMQTT::QueueOwner* Restore(const std::string& clientId) {
        const std::lock_guard<std::mutex> lock(mutex);
        for (const auto& client : clients) {
            if (client->id != clientId || !client->dropped)
                continue;
            client->dropped = false;
            client->connected = true;
            for (const auto& filter : client->filters)
                Subscribe(client, filter);
            Announce(*client, true);
            return client->delivering ? client->owner : nullptr;
        }
        return nullptr;
    }

    int Publish(Client& client, const std::string& topic, const std::string& payload, bool retain, bool assured) {
        using QUILMQTT::QueueOwner;
        std::function<void(const std::string&)> hook;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            hook = publishHook;
        }
        if (hook)
            hook(topic);
        const std::lock_guard<std::mutex> lock(mutex);
        if (topic.empty() || topic.find_first_of("+#") != std::string::npos)
            return QueueOwner::MALFORMED_TOPIC;
        const auto noted = client.announced.Remember(topic, payload, retain, assured);
        if (publishStatus != 0)
            return publishStatus;
        if (!client.connected)
            return QueueOwner::NOT_CONNECTED;
        if (noted == OrvPlatform::AnnouncedState::Outcome::REMEMBERED)
            client.announced.MarkLatestSent();
        Accept(topic, payload, retain);
        return QueueOwner::HANDED_OVER;
    }

    /// The next waiting message and who gets it; nothing when none waits.
    std::optional<std::pair<Message, std::vector<std::shared_ptr<Client>>>> Next() {
        const std::lock_guard<std::mutex> lock(mutex);
        if (waiting.empty())
            return std::nullopt;
        Message message = std::move(waiting.front());
        waiting.pop_front();
        std::vector<std::shared_ptr<Client>> receivers;
        for (const auto& client : clients)
            if ((!message.receiver || message.receiver == client) && client->Wants(message.topic))
                receivers.push_back(client);
        return std::make_pair(std::move(message), std::move(receivers));
    }

    /// Null when the client has meanwhile gone, left, or stopped its delivery.
    QUILMQTT::QueueOwner* ReceiverIn(const Client& client) {
        const std::lock_guard<std::mutex> lock(mutex);
        return client.connected && client.delivering ? client.owner : nullptr;
    }
};

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
    const std::lock_guard<std::mutex> lock(broker.mutex);
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
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Journal::Add(Entry::StopDelivery(core->id));
    core->delivering = false;
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
    broker.publishStatus = 0;
    broker.publishHook = nullptr;
    broker.retained.clear();
    broker.waiting.clear();
}

void FakeBroker::SetReachable(bool reachable) {
    const std::lock_guard<std::mutex> lock(Broker().mutex);
    Broker().reachable = reachable;
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
    Broker().Accept(topic, payload, retained);
}

void FakeBroker::Deliver() {
    while (const auto next = Broker().Next())
        for (const auto& client : next->second)
            if (auto* receiver = Broker().ReceiverIn(*client))
                receiver->OnPublish(next->first.topic, next->first.payload);
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
