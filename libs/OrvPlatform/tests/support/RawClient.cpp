// SPDX-License-Identifier: Apache-2.0
#include "RawClient.h"

#include <unistd.h>

#include <atomic>

namespace OrvTest {

namespace {

std::string UniqueId() {
    static std::atomic<unsigned> count{0};
    return "witness-" + std::to_string(getpid()) + "-" + std::to_string(++count);
}

MqttConnect Anonymous() {
    MqttConnect connect;
    connect.clientId = UniqueId();
    return connect;
}

} // namespace

RawClient::RawClient(std::uint16_t port) : RawClient(port, Anonymous()) {}

RawClient::RawClient(std::uint16_t port, const MqttConnect& connect) : socket(ConnectToLoopback(port)) {
    if (!socket || !WriteWhole(socket.Get(), Encode(connect)))
        return;
    const auto packet = Await(MqttPacket::Type::CONNACK);
    if (packet && packet->body.size() == 2)
        answer = packet->body[1];
}

bool RawClient::Subscribe(const std::string& filter, int qos) {
    if (!socket || !WriteWhole(socket.Get(), EncodeSubscribe(++lastId, filter, qos)))
        return false;
    const auto packet = Await(MqttPacket::Type::SUBACK);
    constexpr int refused = 0x80;
    return packet && packet->body.size() == 3 && static_cast<std::uint8_t>(packet->body[2]) != refused;
}

bool RawClient::Publish(MqttMessage message) {
    message.id = ++lastId;
    if (!socket || !WriteWhole(socket.Get(), Encode(message)))
        return false;
    return message.qos == 0 || Await(MqttPacket::Type::PUBACK);
}

void RawClient::Disconnect() {
    WriteWhole(socket.Get(), Encode(MqttPacket{MqttPacket::Type::DISCONNECT, 0, {}}));
    IsClosed();
    socket.Close();
}

std::optional<MqttMessage> RawClient::NextMessage(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (arrived.empty()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() < 0 || !socket || !HasInput(socket.Get(), left))
            return std::nullopt;
        const auto packet = ReadPacket(socket.Get(), PATIENCE);
        if (!packet)
            return std::nullopt;
        Keep(*packet);
    }
    MqttMessage message = arrived.front();
    arrived.pop_front();
    return message;
}

std::optional<MqttMessage> RawClient::NextMessageOn(const std::string& topic, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() < 0)
            return std::nullopt;
        auto message = NextMessage(left);
        if (!message || message->topic == topic)
            return message;
    }
}

bool RawClient::IsClosed(std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (socket && std::chrono::steady_clock::now() < deadline) {
        if (!HasInput(socket.Get(), limit))
            return false;
        const auto packet = ReadPacket(socket.Get(), limit);
        if (!packet)
            return true;
        Keep(*packet);
    }
    return !socket;
}

std::optional<MqttPacket> RawClient::Await(MqttPacket::Type type) {
    while (auto packet = ReadPacket(socket.Get(), PATIENCE)) {
        if (packet->type == type)
            return packet;
        Keep(*packet);
    }
    return std::nullopt;
}

void RawClient::Keep(const MqttPacket& packet) {
    if (packet.type != MqttPacket::Type::PUBLISH)
        return;
    arrived.push_back(DecodePublish(packet));
    if (arrived.back().qos > 0)
        WriteWhole(socket.Get(), EncodePuback(arrived.back().id));
}

std::map<std::string, std::string> RetainedState(std::uint16_t port, const std::string& filter) {
    std::map<std::string, std::string> state;
    RawClient client(port);
    // Retained messages precede whatever is published after the subscription: the fence comes last.
    const std::string fence = "fence/" + UniqueId();
    if (!client.Subscribe(fence) || !client.Subscribe(filter) || !client.Publish({fence, "", 0, false, false, 0}))
        return state;
    while (const auto message = client.NextMessage()) {
        if (message->topic == fence)
            break;
        if (message->retained)
            state[message->topic] = message->payload;
    }
    return state;
}

} // namespace OrvTest
