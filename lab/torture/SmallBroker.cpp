// SPDX-License-Identifier: Apache-2.0
#include "torture/SmallBroker.h"

#include <algorithm>
#include <chrono>

namespace OrvLab {

using OrvTest::MqttMessage;
using OrvTest::MqttPacket;

namespace {

constexpr std::chrono::milliseconds PATIENCE{1000};

bool Matches(const std::string& filter, const std::string& topic) {
    return filter == topic || (filter.back() == '#' && topic.rfind(filter.substr(0, filter.size() - 1), 0) == 0);
}

} // namespace

SmallBroker::SmallBroker() : SmallServer(OrvTest::ListenOnLoopback(0, 16)) {
    Begin();
}

SmallBroker::~SmallBroker() {
    End();
}

void SmallBroker::Send(const char* topic, const char* payload) {
    const Tortured notThis(false);
    const std::lock_guard<std::mutex> lock(mutex);
    PassOn({topic, payload, 0, false, false, 0});
}

void SmallBroker::Retain(const char* topic, const char* payload) {
    const Tortured notThis(false);
    const std::lock_guard<std::mutex> lock(mutex);
    retained[topic] = payload;
}

std::string SmallBroker::Latest(const char* topic) const {
    const Tortured notThis(false);
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = latest.find(topic);
    return found == latest.end() ? std::string() : found->second;
}

void SmallBroker::Read(BrokerSession& session) {
    const int socket = session.socket.Get();
    const auto packet = OrvTest::ReadPacket(socket, PATIENCE);
    if (!packet || packet->type == MqttPacket::Type::DISCONNECT) {
        session.ended = true;
        return;
    }
    switch (packet->type) {
    case MqttPacket::Type::CONNECT:
        OrvTest::WriteWhole(socket, OrvTest::EncodeConnack(0));
        break;
    case MqttPacket::Type::SUBSCRIBE:
        session.filters.push_back(OrvTest::SubscribedFilter(*packet));
        OrvTest::WriteWhole(socket, OrvTest::EncodeSuback(OrvTest::PacketId(*packet), 1));
        for (const auto& [topic, payload] : retained)
            if (Matches(session.filters.back(), topic))
                OrvTest::WriteWhole(socket, OrvTest::Encode(MqttMessage{topic, payload, 0, true, false, 0}));
        break;
    case MqttPacket::Type::PUBLISH: {
        MqttMessage message = OrvTest::DecodePublish(*packet);
        if (message.qos > 0)
            OrvTest::WriteWhole(socket, OrvTest::EncodePuback(message.id));
        message.qos = 0;
        message.retained = false;
        PassOn(message);
        break;
    }
    case MqttPacket::Type::PINGREQ:
        OrvTest::WriteWhole(socket, OrvTest::Encode(MqttPacket{MqttPacket::Type::PINGRESP, 0, {}}));
        break;
    default:
        break;
    }
}

void SmallBroker::PassOn(const MqttMessage& message) {
    latest[message.topic] = message.payload;
    for (BrokerSession& session : sessions)
        if (std::any_of(session.filters.begin(), session.filters.end(),
                        [&](const std::string& filter) { return Matches(filter, message.topic); }))
            OrvTest::WriteWhole(session.socket.Get(), OrvTest::Encode(message));
}

} // namespace OrvLab
