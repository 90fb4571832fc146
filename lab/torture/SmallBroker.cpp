// SPDX-License-Identifier: Apache-2.0
#include "torture/SmallBroker.h"

#include "torture/Failures.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>

namespace OrvLab {

using OrvTest::MqttMessage;
using OrvTest::MqttPacket;

namespace {

constexpr std::chrono::milliseconds PATIENCE{1000};
constexpr int LOOK_AGAIN = 5; // milliseconds

bool Matches(const std::string& filter, const std::string& topic) {
    return filter == topic || (filter.back() == '#' && topic.rfind(filter.substr(0, filter.size() - 1), 0) == 0);
}

} // namespace

SmallBroker::SmallBroker() : listener(OrvTest::ListenOnLoopback(0, 16)), thread([this] { Serve(); }) {}

SmallBroker::~SmallBroker() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
    }
    thread.join();
}

void SmallBroker::DropAll() {
    const Tortured notThis(false);
    const std::lock_guard<std::mutex> lock(mutex);
    for (Session& session : sessions)
        session.ended = true;
}

void SmallBroker::Send(const char* topic, const char* payload) {
    const Tortured notThis(false);
    const std::lock_guard<std::mutex> lock(mutex);
    PassOn({topic, payload, 0, false, false, 0});
}

std::string SmallBroker::Latest(const char* topic) const {
    const Tortured notThis(false);
    const std::lock_guard<std::mutex> lock(mutex);
    const auto found = latest.find(topic);
    return found == latest.end() ? std::string() : found->second;
}

void SmallBroker::Serve() {
    for (;;) {
        std::vector<pollfd> waits{{listener.Get(), POLLIN, 0}};
        {
            const std::lock_guard<std::mutex> lock(mutex);
            if (stopping)
                return;
            sessions.remove_if([](const Session& session) { return session.ended; });
            for (const Session& session : sessions)
                waits.push_back({session.socket.Get(), POLLIN, 0});
        }
        if (poll(waits.data(), waits.size(), LOOK_AGAIN) <= 0)
            continue;
        const std::lock_guard<std::mutex> lock(mutex);
        auto session = sessions.begin();
        for (std::size_t index = 1; index < waits.size(); ++index, ++session)
            if (waits[index].revents != 0)
                Handle(*session);
        if (waits[0].revents != 0)
            Accept();
    }
}

void SmallBroker::Accept() {
    OrvTest::Descriptor socket(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    if (socket)
        sessions.push_back({std::move(socket), {}});
}

void SmallBroker::Handle(Session& session) {
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
    for (Session& session : sessions)
        if (std::any_of(session.filters.begin(), session.filters.end(),
                        [&](const std::string& filter) { return Matches(filter, message.topic); }))
            OrvTest::WriteWhole(session.socket.Get(), OrvTest::Encode(message));
}

} // namespace OrvLab
