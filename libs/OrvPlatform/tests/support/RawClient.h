// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "MqttPacket.h"
#include "Sockets.h"
#include "WaitUntil.h"

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <optional>
#include <string>

namespace OrvTest {

/// An MQTT client that shares no code with the one under test. It has no thread: what arrives waits in its socket.
/// Operations that wait do so with patience and return false when it runs out or when the broker has gone.
class RawClient {
public:
    explicit RawClient(std::uint16_t port);
    RawClient(std::uint16_t port, const MqttConnect& connect);

    /// The broker's answer: 0 accepted, -1 none.
    int Answer() const { return answer; }

    bool Subscribe(const std::string& filter, int qos = 0);
    /// Waits for the acknowledgement of a message with qos 1.
    bool Publish(MqttMessage message);
    void Disconnect();
    /// Breaks the connection off, so that the broker speaks the last will.
    void DropConnection() { socket.Close(); }

    std::optional<MqttMessage> NextMessage(std::chrono::milliseconds limit = PATIENCE);
    /// The next message on that topic; others before it are dropped.
    std::optional<MqttMessage> NextMessageOn(const std::string& topic, std::chrono::milliseconds limit = PATIENCE);
    /// True when the broker closes the connection.
    bool IsClosed(std::chrono::milliseconds limit = PATIENCE);

private:
    std::optional<MqttPacket> Await(MqttPacket::Type type);
    void Keep(const MqttPacket& packet);

    Descriptor socket;
    int answer = -1;
    std::uint16_t lastId = 0;
    std::deque<MqttMessage> arrived;
};

/// What the broker retains on the topics of `filter`.
std::map<std::string, std::string> RetainedState(std::uint16_t port, const std::string& filter);

} // namespace OrvTest
