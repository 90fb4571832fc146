// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace OrvTest {

/// MQTT 3.1.1 on the wire, written without the client library so that it can bear witness against it.
struct MqttPacket {
    enum class Type : std::uint8_t {
        CONNECT = 1,
        CONNACK,
        PUBLISH,
        PUBACK,
        SUBSCRIBE = 8,
        SUBACK,
        UNSUBSCRIBE,
        UNSUBACK,
        PINGREQ,
        PINGRESP,
        DISCONNECT
    };

    Type type = Type::CONNECT;
    std::uint8_t flags = 0;
    std::string body;
};

/// A message as it travels in a PUBLISH.
struct MqttMessage {
    std::string topic;
    std::string payload;
    int qos = 0;
    bool retained = false;
    bool duplicate = false;
    std::uint16_t id = 0; // for qos 1

    bool operator==(const MqttMessage& other) const {
        return topic == other.topic && payload == other.payload && qos == other.qos && retained == other.retained;
    }
};

/// What a client says in its CONNECT.
struct MqttConnect {
    std::string clientId;
    bool cleanSession = true;
    std::uint16_t keepAlive = 60;
    std::optional<MqttMessage> will;
    std::string username; // empty for none
    std::string password;
};

std::string Encode(const MqttPacket& packet);
std::string Encode(const MqttConnect& connect);
std::string Encode(const MqttMessage& message);
std::string EncodeConnack(int code);
std::string EncodePuback(std::uint16_t id);
std::string EncodeSubscribe(std::uint16_t id, const std::string& filter, int qos);
std::string EncodeSuback(std::uint16_t id, int granted);

MqttConnect DecodeConnect(const MqttPacket& packet);
MqttMessage DecodePublish(const MqttPacket& packet);
/// The two bytes at the beginning of a body: a packet id.
std::uint16_t PacketId(const MqttPacket& packet);
/// The one filter of a SUBSCRIBE.
std::string SubscribedFilter(const MqttPacket& packet);

/// The next packet; nothing when none came within `limit` or when the peer is gone.
std::optional<MqttPacket> ReadPacket(int descriptor, std::chrono::milliseconds limit);

} // namespace OrvTest
