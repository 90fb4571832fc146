// SPDX-License-Identifier: Apache-2.0
#include "FakeBrokerServer.h"

#include "WaitUntil.h"

#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace OrvTest {

namespace {
// Not for ever: a call that waits for it in vain is to fail a test, not to hang it.
constexpr std::chrono::seconds FROZEN{15};
} // namespace

std::optional<MqttPacket> FakeBrokerServer::Session::Read() {
    auto packet = ReadPacket(socket.Get(), std::chrono::hours(1));
    if (packet) {
        const std::lock_guard<std::mutex> lock(owner.mutex);
        owner.packets.push_back(*packet);
    }
    return packet;
}

void FakeBrokerServer::Session::Serve() {
    while (const auto packet = Read()) {
        switch (packet->type) {
        case MqttPacket::Type::CONNECT:
            Send(EncodeConnack(0));
            break;
        case MqttPacket::Type::PUBLISH:
            if (const auto message = DecodePublish(*packet); message.topic == "hang up")
                return;
            else if (message.qos > 0)
                Send(EncodePuback(message.id));
            break;
        case MqttPacket::Type::SUBSCRIBE:
            Send(EncodeSuback(PacketId(*packet), 1));
            break;
        case MqttPacket::Type::PINGREQ:
            Send(Encode(MqttPacket{MqttPacket::Type::PINGRESP, 0, {}}));
            break;
        case MqttPacket::Type::DISCONNECT:
            return;
        default:
            break;
        }
    }
}

void FakeBrokerServer::Session::Freeze() {
    std::unique_lock<std::mutex> lock(owner.mutex);
    owner.stopped.wait(lock, [this] { return owner.stopping; });
}

void FakeBrokerServer::Session::Freeze(std::chrono::milliseconds duration) {
    std::unique_lock<std::mutex> lock(owner.mutex);
    owner.stopped.wait_for(lock, duration, [this] { return owner.stopping; });
}

FakeBrokerServer::FakeBrokerServer(Behaviour first)
    : listener(ListenOnLoopback(0, 64)), port(PortOf(listener)), behaviour(std::move(first)) {
    thread = std::thread([this] { Listen(); });
}

FakeBrokerServer::~FakeBrokerServer() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        stopping = true;
        stopped.notify_all();
        shutdown(listener.Get(), SHUT_RDWR); // wakes accept
        for (const Session& session : sessions)
            shutdown(session.socket.Get(), SHUT_RDWR);
    }
    thread.join();
    for (Session& session : sessions)
        session.thread.join();
}

void FakeBrokerServer::Listen() {
    for (;;) {
        Descriptor connection(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        const std::lock_guard<std::mutex> lock(mutex);
        if (stopping || !connection)
            return;
        ++connections;
        Session& session = sessions.emplace_back(*this, std::move(connection));
        session.thread = std::thread([this, &session, play = behaviour] {
            play(session);
            const std::lock_guard<std::mutex> closing(mutex);
            session.socket.Close();
        });
    }
}

std::vector<MqttPacket> FakeBrokerServer::Packets() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return packets;
}

std::size_t FakeBrokerServer::Count(MqttPacket::Type type) const {
    const auto all = Packets();
    return static_cast<std::size_t>(
        std::count_if(all.begin(), all.end(), [type](const MqttPacket& packet) { return packet.type == type; }));
}

void FakeBrokerServer::Behave(Behaviour next) {
    const std::lock_guard<std::mutex> lock(mutex);
    behaviour = std::move(next);
}

void FakeBrokerServer::Accept(Session& session) {
    session.Serve();
}

void FakeBrokerServer::AcceptAndFreeze(Session& session) {
    session.Read();
    session.Send(EncodeConnack(0));
    session.Freeze(FROZEN);
}

void FakeBrokerServer::StaySilent(Session& session) {
    session.Freeze(FROZEN);
}

void FakeBrokerServer::SpeakGarbage(Session& session) {
    session.Read();
    session.Send("HTTP/1.1 400 Bad Request\r\n\r\n");
    session.Freeze();
}

FakeBrokerServer::Behaviour FakeBrokerServer::Refuse(int code) {
    return [code](Session& session) {
        session.Read();
        session.Send(EncodeConnack(code));
    };
}

FakeBrokerServer::Behaviour FakeBrokerServer::AcceptAfter(std::chrono::milliseconds delay) {
    return [delay](Session& session) {
        session.Read();
        session.Freeze(delay);
        session.Send(EncodeConnack(0));
        session.Serve();
    };
}

FullBacklog::FullBacklog() : listener(ListenOnLoopback(0, 0)) {
    // The kernel admits one or two more than asked for.
    for (int number = 0; number < 4; ++number)
        waiting.push_back(BeginConnectToLoopback(Port()));
}

} // namespace OrvTest
