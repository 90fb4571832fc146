// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Descriptors.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace OrvLab {

/// What goes over the wire, either way.
struct Packet {
    enum class Type {
        CONNECT,
        CONNACK,
        SUBSCRIBE,
        SUBACK,
        PUBLISH,
        PUBACK,
        PINGREQ,
        PINGRESP,
        DISCONNECT,
        HALF,
        MALFORMED
    };

    Type type = Type::PINGREQ;
    int id = 0;   // of a message or request
    int code = 0; // of an answer
    int qos = 0;
    bool retained = false;
    bool again = false;
    std::string topic; // or filter, or client id
    std::string payload;
};

std::string Text(const Packet& packet);

struct Will {
    std::string topic; // empty: none
    std::string message;
    bool retained = false;
};

/// One connection: the client's socket, and what the broker knows of it.
class Connection final : public OpenFile {
public:
    /// What becomes of it, drawn when it is made.
    enum class Fate {
        NONE,
        REFUSED,         // with a code
        DROPPED_AT_ONCE, // before an answer
        LATE,            // the answer comes after seconds
        MUTE,            // no answer ever
        EVICTED,         // soon after it was accepted
        DROPPED_LATER,   // after some packets
        CUT_IN_A_PACKET, // the same, with half a packet sent
        NONSENSE,        // sends what is no MQTT
        MUTE_LATER,
        CONFUSED, // acknowledges twice and what was never sent
    };

    short Ready() const override;
    std::size_t Waiting() const override { return toClient.empty() ? 0 : 4; }
    void ShutDownWriting() override { clientGone = true; }
    long Receive(void* buffer, std::size_t size) override;
    bool TakesMore() const { return toBroker.size() < window; }

    int number = 0;
    std::string client;
    Will will;
    Fate fate = Fate::NONE;
    int packetsUntilFate = 0;
    Time latency = 0;
    std::size_t window = 1000;

    std::deque<Packet> toBroker; // sent, not read by the broker
    std::deque<Packet> toClient; // arrived, not read by the client
    struct Answer {
        Time due;
        Packet packet;
    };
    std::deque<Answer> answers; // on the way to the client
    Time readsAt = NEVER;       // when the broker reads next
    Time lastHeard = 0;

    bool isAccepted = false;
    bool clientGone = false; // the client has closed, or sends no more
    bool goodBye = false;    // with a DISCONNECT
    bool closing = false;    // once what was sent has arrived
    bool closed = false;     // by the broker

    std::map<std::string, int> filters;
    std::vector<Packet> received; // everything that the broker has read
    unsigned messages = 0;        // sent to the client
    int nextId = 1;
};

/// A broker at the edge of the client library: what it does follows from the seed and from what it is told.
class ScriptedBroker final : public Surroundings {
public:
    enum class Behaviour { HEALTHY, FLAKY, REFUSING, FROZEN, DOWN };

    ScriptedBroker(Simulation& simulation, std::uint64_t seed) : sim(simulation), random(seed) {}

    Time NextEvent() const override;
    void Advance(Time now) override;

    /// @name What happens to it
    /// @{
    void SetBehaviour(Behaviour behaviour);
    void DropAll();
    /// Ends every connection and forgets what it has retained.
    void Restart();
    /// A message for everybody who has subscribed to that topic.
    void Send(const std::string& topic);
    /// The same as if somebody had published it.
    void Publish(const std::string& topic, const std::string& payload, bool retained);
    /// From now on it passes on what is published, and hands what it has retained to whoever subscribes, as brokers do.
    void PassOn() { passesOn = true; }
    /// From now on it is as good as a broker can be.
    void Heal();
    /// @}

    /// A new connection; null when it is refused by the system.
    std::shared_ptr<Connection> Accept(const std::string& client);
    /// How often that has been tried.
    int Attempts() const { return attempts; }
    /// When a client has tried it.
    const std::vector<Time>& AttemptsOf(const std::string& client) { return attemptsOf[client]; }
    /// How often it has spoken a client's last will.
    int WillsOf(const std::string& client) { return wills[client]; }

    const std::vector<std::shared_ptr<Connection>>& Connections() const { return connections; }
    /// The latest one of this client that was accepted and is open; null for none.
    Connection* Of(const std::string& client) const;
    const std::map<std::string, std::string>& Retained() const { return retained; }
    static bool Matches(const std::string& filter, const std::string& topic);
    /// Payloads of all publications that it has ever read.
    bool HasReceived(const std::string& payload) const { return received.count(payload) != 0; }

private:
    void DrawFate(Connection& connection);
    void Read(Connection& connection);
    void Handle(Connection& connection, const Packet& packet);
    void OnConnect(Connection& connection, const Packet& packet);
    void Reply(Connection& connection, Packet packet, Time later = 0);
    void ApplyFate(Connection& connection);
    void Close(Connection& connection);
    void SpeakLastWill(Connection& connection);
    void Keep(const Packet& publication);
    void Deliver(const std::string& topic, const std::string& payload);
    void DeliverRetained(Connection& connection, const std::string& filter);
    bool IsServed(const Connection& connection) const;

    Simulation& sim;
    Random random;
    Behaviour behaviour = Behaviour::HEALTHY;
    std::vector<std::shared_ptr<Connection>> connections;
    bool healed = false;
    bool passesOn = false;
    int accepted = 0;
    int attempts = 0;
    std::map<std::string, std::vector<Time>> attemptsOf;
    std::map<std::string, int> wills;
    std::map<std::string, std::string> retained;
    std::set<std::string> received;
};

} // namespace OrvLab
