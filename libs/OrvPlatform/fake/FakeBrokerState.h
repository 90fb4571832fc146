// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "FakeBroker.h"
#include "Journal.h"
#include "QuilMqtt/QueueOwner.h"
#include "broker/AnnouncedState.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

/// What the fake broker knows; every operation but those of Client takes the mutex, unless it says otherwise.
namespace OrvPlatformFake::BrokerState {

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
    std::optional<std::thread::id> callback; // the thread on which one is under way
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
    std::chrono::milliseconds due{0};
};

struct State {
    std::mutex mutex;
    std::condition_variable callbackEnded;
    bool reachable = true;
    std::string refused; // the client whose connections are not taken
    int publishStatus = 0;
    std::function<void(const std::string&)> publishHook;
    std::function<void(const FakeBroker::Taken&)> takenHook;
    std::function<void()> waitingHook;
    std::function<std::chrono::milliseconds()> clock;
    std::chrono::milliseconds latency{0};
    std::map<std::string, std::string> retained;
    std::deque<Message> waiting;
    std::vector<std::shared_ptr<Client>> clients;

    /// Whether a connection of the client is accepted. The mutex is held.
    bool Takes(const Client& client) const { return reachable && client.id != refused; }

    void Wait(Message message) {
        if (clock)
            message.due = clock() + latency;
        waiting.push_back(std::move(message));
        if (waitingHook)
            waitingHook();
    }

    void Accept(const std::string& client, const std::string& topic, const std::string& payload, bool retain) {
        if (takenHook)
            takenHook({client, topic, payload, retain});
        if (retain && payload.empty())
            retained.erase(topic);
        else if (retain)
            retained[topic] = payload;
        Wait({nullptr, topic, payload});
    }

    bool Connect(Client& client, std::optional<Will> will) {
        const std::lock_guard<std::mutex> lock(mutex);
        client.filters.clear();
        client.connected = Takes(client);
        client.delivering = client.connected;
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
            Accept(client.id, client.will->topic, client.will->message, client.will->retained);
        }
        client.dropped = std::exchange(client.connected, false);
    }

    /// Everything, or what has not been taken yet.
    void Announce(Client& client, bool everything) {
        for (auto& announcement : client.announced.All()) {
            if (everything || announcement.pending)
                Accept(client.id, announcement.topic, announcement.payload, announcement.retained);
            announcement.pending = false;
        }
    }

    void Subscribe(const std::shared_ptr<Client>& client, const std::string& filter) {
        // As real brokers do: a retained message comes once for every subscription that matches it.
        for (const auto& [topic, payload] : retained)
            if (FakeBroker::Matches(filter, topic))
                Wait({client, topic, payload});
    }

    QUILMQTT::QueueOwner* Restore(const std::string& clientId) {
        const std::lock_guard<std::mutex> lock(mutex);
        for (const auto& client : clients) {
            if (client->id != clientId || !client->dropped || !Takes(*client))
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
        Accept(client.id, topic, payload, retain);
        return QueueOwner::HANDED_OVER;
    }

    /// The next waiting message and who gets it; nothing when none waits.
    std::optional<std::pair<Message, std::vector<std::shared_ptr<Client>>>> Next() {
        const std::lock_guard<std::mutex> lock(mutex);
        if (waiting.empty() || (clock && waiting.front().due > clock()))
            return std::nullopt;
        Message message = std::move(waiting.front());
        waiting.pop_front();
        std::vector<std::shared_ptr<Client>> receivers;
        for (const auto& client : clients)
            if ((!message.receiver || message.receiver == client) && client->Wants(message.topic))
                receivers.push_back(client);
        return std::make_pair(std::move(message), std::move(receivers));
    }

    /// Calls back unless the client has meanwhile gone, left, or stopped its delivery.
    void CallBack(Client& client, const Message& message) {
        QUILMQTT::QueueOwner* receiver = nullptr;
        {
            const std::lock_guard<std::mutex> lock(mutex);
            if (!client.connected || !client.delivering)
                return;
            receiver = client.owner;
            client.callback = std::this_thread::get_id();
        }
        const CallbackEnd end{*this, client};
        receiver->OnPublish(message.topic, message.payload);
    }

    /// An exception that a test throws in a callback leaves no callback under way.
    struct CallbackEnd {
        State& broker;
        Client& client;
        ~CallbackEnd() {
            const std::lock_guard<std::mutex> lock(broker.mutex);
            client.callback.reset();
            broker.callbackEnded.notify_all();
        }
    };

    /// Waits for the callback under way, unless this is called there.
    void AwaitCallback(std::unique_lock<std::mutex>& lock, const Client& client) {
        if (client.callback != std::this_thread::get_id())
            callbackEnded.wait(lock, [&client] { return !client.callback; });
    }
};

} // namespace OrvPlatformFake::BrokerState
