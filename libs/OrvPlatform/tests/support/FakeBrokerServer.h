// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "MqttPacket.h"
#include "Sockets.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <list>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace OrvTest {

/// Something that listens on 127.0.0.1 where a broker is expected, and behaves as a test wants. Each connection is
/// served by a thread of its own. Everything that arrives through Read is kept.
class FakeBrokerServer {
public:
    /// One accepted connection, for a behaviour to play with.
    class Session {
    public:
        Session(FakeBrokerServer& server, Descriptor connection) : owner(server), socket(std::move(connection)) {}

        /// The next packet; nothing when the client or the server ends.
        std::optional<MqttPacket> Read();
        bool Send(const std::string& bytes) { return WriteWhole(socket.Get(), bytes); }
        /// Acknowledges as a broker would, until the client goes or publishes on the topic "hang up".
        void Serve();
        /// Neither reads nor writes until the server ends.
        void Freeze();
        /// The same for a time.
        void Freeze(std::chrono::milliseconds duration);

    private:
        friend class FakeBrokerServer;

        FakeBrokerServer& owner;
        Descriptor socket;
        std::thread thread;
    };

    using Behaviour = std::function<void(Session&)>;

    explicit FakeBrokerServer(Behaviour behaviour);
    ~FakeBrokerServer();
    FakeBrokerServer(const FakeBrokerServer&) = delete;
    FakeBrokerServer& operator=(const FakeBrokerServer&) = delete;

    std::uint16_t Port() const { return port; }
    int Connections() const { return connections; }
    std::vector<MqttPacket> Packets() const;
    std::size_t Count(MqttPacket::Type type) const;
    /// For the connections to come.
    void Behave(Behaviour behaviour);

    // Behaviours.
    static void Accept(Session& session);          // a well-behaved broker that passes nothing on
    static void AcceptAndFreeze(Session& session); // answers the CONNECT and nothing more
    static void CloseAtOnce(Session&) {}
    static void StaySilent(Session& session);
    static void SpeakGarbage(Session& session);
    static Behaviour Refuse(int code);
    static Behaviour AcceptAfter(std::chrono::milliseconds delay);

private:
    void Listen();

    const Descriptor listener;
    const std::uint16_t port;

    std::atomic<int> connections{0};
    mutable std::mutex mutex;
    std::condition_variable stopped;
    bool stopping = false;
    Behaviour behaviour;
    std::vector<MqttPacket> packets;
    std::list<Session> sessions;
    std::thread thread;
};

/// A port whose backlog is full: a connection to it is neither made nor refused.
class FullBacklog {
public:
    FullBacklog();
    std::uint16_t Port() const { return PortOf(listener); }

private:
    const Descriptor listener;
    std::vector<Descriptor> waiting;
};

} // namespace OrvTest
