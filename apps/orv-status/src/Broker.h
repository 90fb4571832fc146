// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Snapshot.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

struct mosquitto;
struct mosquitto_message;

namespace OrvStatus {

struct BrokerSettings {
    std::string host; ///< an address, or the path of a unix socket
    int port = 1883;  ///< 0 for a unix socket
    std::string user, password;
};

/// A client of the gateway's broker that subscribes to everything under /orv and publishes nothing. It has no thread:
/// its owner polls its socket. A broker that is away is tried again each second. It speaks MQTT 5, whose brokers tell
/// of each message whether it is retained, and version 3.1.1 with a broker that knows no other.
class Broker {
public:
    using Time = std::chrono::steady_clock::time_point;

    explicit Broker(BrokerSettings brokerSettings);
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    /// To be called at least four times a second, and whenever the socket is ready.
    void Step(Time now);
    int Socket() const;
    bool WantsWrite() const;

    const BrokerView& View() const { return view; }
    /// The answer is there: connected with all retained messages, or not to be reached.
    bool Settled() const { return view.complete || view.state == Known::AWAY || view.state == Known::REFUSING; }
    /// Whether something has changed since the last call.
    bool TakeChanged();

private:
    struct Destroy {
        void operator()(mosquitto* handle) const;
    };
    void Begin(Time now, bool inVersion5);
    void Disconnected(Known state, const std::string& reason);
    void Away(const std::string& reason) { Disconnected(Known::AWAY, reason); }
    void OnConnected(int code);
    void OnMessage(const mosquitto_message& message);

    const BrokerSettings settings;
    const std::string clientId;
    std::unique_ptr<mosquitto, Destroy> client;
    BrokerView view;
    bool version5 = true;
    std::string refusal; // of the connection that was begun last
    Time nextTry;
    Time begun;
    int lastSubscription = 0;
    bool changed = true;
};

} // namespace OrvStatus
