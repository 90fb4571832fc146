// SPDX-License-Identifier: Apache-2.0
#include "MqttPacket.h"

#include "Sockets.h"

#include <stdexcept>

namespace OrvTest {

namespace {

std::string Number(std::size_t value) {
    return {static_cast<char>(value >> 8U & 0xFFU), static_cast<char>(value & 0xFFU)};
}

std::string Text(const std::string& text) {
    return Number(text.size()) + text;
}

/// Takes a body apart.
class Reader {
public:
    explicit Reader(const std::string& bytes) : body(bytes) {}

    std::uint8_t Byte() { return static_cast<std::uint8_t>(Take(1)[0]); }

    std::uint16_t Number() {
        const std::string two = Take(2);
        return static_cast<std::uint16_t>(static_cast<std::uint8_t>(two[0]) << 8U | static_cast<std::uint8_t>(two[1]));
    }

    std::string Text() { return Take(Number()); }
    std::string Rest() { return Take(body.size() - position); }

private:
    std::string Take(std::size_t size) {
        if (body.size() - position < size)
            throw std::runtime_error("packet too short");
        position += size;
        return body.substr(position - size, size);
    }

    const std::string& body;
    std::size_t position = 0;
};

} // namespace

std::string Encode(const MqttPacket& packet) {
    std::string bytes(1, static_cast<char>(static_cast<unsigned>(packet.type) << 4U | packet.flags));
    std::size_t left = packet.body.size();
    do {
        const std::size_t seven = left & 0x7FU;
        left >>= 7U;
        bytes += static_cast<char>(seven | (left > 0 ? 0x80U : 0U));
    } while (left > 0);
    return bytes + packet.body;
}

std::string Encode(const MqttConnect& connect) {
    unsigned flags = connect.cleanSession ? 2U : 0U;
    std::string fields = Text(connect.clientId);
    if (connect.will) {
        flags |= 4U | static_cast<unsigned>(connect.will->qos) << 3U | (connect.will->retained ? 0x20U : 0U);
        fields += Text(connect.will->topic) + Text(connect.will->payload);
    }
    if (!connect.username.empty()) {
        flags |= 0xC0U;
        fields += Text(connect.username) + Text(connect.password);
    }
    const std::string head = Text("MQTT") + std::string(1, 4) + static_cast<char>(flags) + Number(connect.keepAlive);
    return Encode(MqttPacket{MqttPacket::Type::CONNECT, 0, head + fields});
}

std::string Encode(const MqttMessage& message) {
    const unsigned flags =
        (message.duplicate ? 8U : 0U) | static_cast<unsigned>(message.qos) << 1U | (message.retained ? 1U : 0U);
    const std::string id = message.qos > 0 ? Number(message.id) : std::string();
    return Encode(MqttPacket{MqttPacket::Type::PUBLISH, static_cast<std::uint8_t>(flags),
                             Text(message.topic) + id + message.payload});
}

std::string EncodeConnack(int code) {
    return Encode(MqttPacket{MqttPacket::Type::CONNACK, 0, {'\0', static_cast<char>(code)}});
}

std::string EncodePuback(std::uint16_t id) {
    return Encode(MqttPacket{MqttPacket::Type::PUBACK, 0, Number(id)});
}

std::string EncodeSubscribe(std::uint16_t id, const std::string& filter, int qos) {
    return Encode(MqttPacket{MqttPacket::Type::SUBSCRIBE, 2, Number(id) + Text(filter) + static_cast<char>(qos)});
}

std::string EncodeSuback(std::uint16_t id, int granted) {
    return Encode(MqttPacket{MqttPacket::Type::SUBACK, 0, Number(id) + static_cast<char>(granted)});
}

MqttConnect DecodeConnect(const MqttPacket& packet) {
    Reader reader(packet.body);
    MqttConnect connect;
    reader.Text();
    reader.Byte();
    const unsigned flags = reader.Byte();
    connect.cleanSession = (flags & 2U) != 0;
    connect.keepAlive = reader.Number();
    connect.clientId = reader.Text();
    if ((flags & 4U) != 0) {
        MqttMessage will;
        will.topic = reader.Text();
        will.payload = reader.Text();
        will.qos = static_cast<int>(flags >> 3U & 3U);
        will.retained = (flags & 0x20U) != 0;
        connect.will = will;
    }
    if ((flags & 0x80U) != 0)
        connect.username = reader.Text();
    if ((flags & 0x40U) != 0)
        connect.password = reader.Text();
    return connect;
}

MqttMessage DecodePublish(const MqttPacket& packet) {
    Reader reader(packet.body);
    MqttMessage message;
    message.retained = (packet.flags & 1U) != 0;
    message.qos = packet.flags >> 1U & 3;
    message.duplicate = (packet.flags & 8U) != 0;
    message.topic = reader.Text();
    if (message.qos > 0)
        message.id = reader.Number();
    message.payload = reader.Rest();
    return message;
}

std::uint16_t PacketId(const MqttPacket& packet) {
    return Reader(packet.body).Number();
}

std::string SubscribedFilter(const MqttPacket& packet) {
    Reader reader(packet.body);
    reader.Number();
    return reader.Text();
}

std::optional<MqttPacket> ReadPacket(int descriptor, std::chrono::milliseconds limit) {
    char byte = 0;
    if (!ReadWhole(descriptor, &byte, 1, limit))
        return std::nullopt;
    const unsigned head = static_cast<std::uint8_t>(byte);
    MqttPacket packet{static_cast<MqttPacket::Type>(head >> 4U), static_cast<std::uint8_t>(head & 0xFU), {}};
    std::size_t size = 0;
    for (unsigned shift = 0; shift < 28; shift += 7) {
        if (!ReadWhole(descriptor, &byte, 1, limit))
            return std::nullopt;
        size |= (static_cast<std::uint8_t>(byte) & 0x7FU) << shift;
        if ((static_cast<std::uint8_t>(byte) & 0x80U) == 0)
            break;
    }
    packet.body.resize(size);
    if (!ReadWhole(descriptor, packet.body.data(), size, limit))
        return std::nullopt;
    return packet;
}

} // namespace OrvTest
