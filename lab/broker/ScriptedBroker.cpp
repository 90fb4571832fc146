// SPDX-License-Identifier: Apache-2.0
#include "broker/ScriptedBroker.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

namespace OrvLab {

namespace {

// A broker waits for one and a half times the keep-alive of five seconds.
constexpr Time PATIENCE = 7500 * MILLISECOND;

Packet Plain(Packet::Type type, int id = 0, int code = 0) {
    Packet packet;
    packet.type = type;
    packet.id = id;
    packet.code = code;
    return packet;
}

} // namespace

short Connection::Ready() const {
    short ready = 0;
    if (!toClient.empty() || closed)
        ready |= POLLIN;
    if (closed && clientGone)
        ready |= POLLHUP;
    if (closed || TakesMore())
        ready |= POLLOUT;
    return ready;
}

long Connection::Receive(void* /*buffer*/, std::size_t size) {
    if (!toClient.empty()) {
        toClient.pop_front();
        return static_cast<long>(std::min<std::size_t>(size, 4));
    }
    if (closed)
        return 0;
    errno = EAGAIN;
    return -1;
}

bool ScriptedBroker::IsServed(const Connection& connection) const {
    return behaviour != Behaviour::FROZEN && connection.fate != Connection::Fate::MUTE;
}

Time ScriptedBroker::NextEvent() const {
    Time next = NEVER;
    for (const auto& connection : connections) {
        const Connection& one = *connection;
        if (one.closed)
            continue;
        if (!one.answers.empty())
            next = std::min(next, one.answers.front().due);
        if (IsServed(one))
            next = std::min({next, one.readsAt, one.lastHeard + PATIENCE});
    }
    return next;
}

void ScriptedBroker::Advance(Time now) {
    for (const auto& connection : connections) {
        Connection& one = *connection;
        if (connection.use_count() == 1)
            one.clientGone = true;
        while (!one.closed && !one.answers.empty() && one.answers.front().due <= now) {
            one.toClient.push_back(std::move(one.answers.front().packet));
            one.answers.pop_front();
        }
        if (one.closing && one.answers.empty())
            Close(one);
        if (one.closed || !IsServed(one))
            continue;
        if (one.readsAt == NEVER && (!one.toBroker.empty() || one.clientGone))
            one.readsAt = now + one.latency;
        if (one.readsAt <= now)
            Read(one);
        else if (now >= one.lastHeard + PATIENCE)
            Close(one);
    }
    connections.erase(std::remove_if(connections.begin(), connections.end(),
                                     [](const auto& one) { return one->closed && one.use_count() == 1; }),
                      connections.end());
}

void ScriptedBroker::SetBehaviour(Behaviour changed) {
    if (changed == Behaviour::DOWN)
        Restart();
    behaviour = changed;
}

void ScriptedBroker::DropAll() {
    for (const auto& connection : connections)
        Close(*connection);
}

void ScriptedBroker::Restart() {
    for (const auto& connection : connections) {
        connection->goodBye = true; // nobody is left to speak the last will
        Close(*connection);
    }
    retained.clear();
}

void ScriptedBroker::Heal() {
    behaviour = Behaviour::HEALTHY;
    healed = true;
    for (const auto& connection : connections) {
        if (connection->fate == Connection::Fate::MUTE && !connection->isAccepted)
            Close(*connection); // it has waited for its answer for too long
        connection->fate = Connection::Fate::NONE;
        connection->latency = MILLISECOND;
        connection->lastHeard = sim.Now();
    }
}

void ScriptedBroker::Send(const std::string& topic) {
    for (const auto& connection : connections) {
        Connection& one = *connection;
        const auto filter = one.filters.find(topic);
        if (filter == one.filters.end() || one.closed || !IsServed(one))
            continue;
        Packet message = Plain(Packet::Type::PUBLISH, one.nextId++);
        message.topic = topic;
        message.qos = filter->second;
        message.payload = std::to_string(one.number) + "." + std::to_string(++one.messages);
        Reply(one, message);
    }
}

void ScriptedBroker::Publish(const std::string& topic, const std::string& payload, bool asRetained) {
    Packet message = Plain(Packet::Type::PUBLISH);
    message.topic = topic;
    message.payload = payload;
    message.retained = asRetained;
    Keep(message);
    Deliver(topic, payload);
}

bool ScriptedBroker::Matches(const std::string& filter, const std::string& topic) {
    const char last = filter.empty() ? '\0' : filter.back();
    if (last != '#' && last != '+')
        return filter == topic;
    const std::string stem = filter.substr(0, filter.size() - 1);
    return topic.compare(0, stem.size(), stem) == 0 &&
           (last == '#' || topic.find('/', stem.size()) == std::string::npos);
}

// Once to each, however many of its filters match.
void ScriptedBroker::Deliver(const std::string& topic, const std::string& payload) {
    for (const auto& connection : connections) {
        Connection& one = *connection;
        const auto filter = std::find_if(one.filters.begin(), one.filters.end(),
                                         [&](const auto& wanted) { return Matches(wanted.first, topic); });
        if (filter == one.filters.end() || one.closed || !IsServed(one))
            continue;
        Packet message = Plain(Packet::Type::PUBLISH, one.nextId++);
        message.topic = topic;
        message.qos = filter->second;
        message.payload = payload;
        ++one.messages;
        Reply(one, message);
    }
}

void ScriptedBroker::DeliverRetained(Connection& connection, const std::string& filter) {
    for (const auto& [topic, payload] : retained) {
        if (!Matches(filter, topic))
            continue;
        Packet message = Plain(Packet::Type::PUBLISH, connection.nextId++);
        message.topic = topic;
        message.qos = connection.filters[filter];
        message.payload = payload;
        message.retained = true;
        ++connection.messages;
        Reply(connection, message);
    }
}

std::shared_ptr<Connection> ScriptedBroker::Accept(const std::string& client) {
    ++attempts;
    attemptsOf[client].push_back(sim.Now());
    if (behaviour == Behaviour::DOWN)
        return nullptr;
    auto connection = std::make_shared<Connection>();
    connection->number = ++accepted;
    connection->lastHeard = sim.Now();
    connection->latency = random.OneIn(6) ? static_cast<Time>(random.Below(1500)) * MILLISECOND
                                          : static_cast<Time>(random.Below(3000)) * MICROSECOND;
    connection->window = random.OneIn(3) ? 1 + random.Below(6) : 1000;
    if (healed) {
        connection->latency = MILLISECOND;
        connection->window = 1000;
    }
    if (behaviour == Behaviour::FLAKY)
        DrawFate(*connection);
    connections.push_back(connection);
    return connection;
}

void ScriptedBroker::DrawFate(Connection& connection) {
    constexpr unsigned FATES = static_cast<unsigned>(Connection::Fate::CONFUSED) + 1;
    connection.fate = static_cast<Connection::Fate>(random.Below(FATES));
    connection.packetsUntilFate = static_cast<int>(random.Below(12));
}

Connection* ScriptedBroker::Of(const std::string& client) const {
    for (auto connection = connections.rbegin(); connection != connections.rend(); ++connection)
        if ((*connection)->client == client && (*connection)->isAccepted && !(*connection)->closed)
            return connection->get();
    return nullptr;
}

void ScriptedBroker::Read(Connection& connection) {
    connection.readsAt = NEVER;
    while (!connection.toBroker.empty() && !connection.closed && IsServed(connection)) {
        const Packet packet = std::move(connection.toBroker.front());
        connection.toBroker.pop_front();
        connection.lastHeard = sim.Now();
        connection.received.push_back(packet);
        sim.Trace("    broker reads from " + connection.client + ": " + Text(packet));
        Handle(connection, packet);
        if (connection.isAccepted && --connection.packetsUntilFate == 0)
            ApplyFate(connection);
    }
    if (connection.toBroker.empty() && connection.clientGone && !connection.closed)
        Close(connection);
}

void ScriptedBroker::Handle(Connection& connection, const Packet& packet) {
    switch (packet.type) {
    case Packet::Type::CONNECT:
        OnConnect(connection, packet);
        break;
    case Packet::Type::SUBSCRIBE: {
        const bool granted = packet.topic.rfind("refused", 0) != 0;
        if (granted)
            connection.filters[packet.topic] = packet.qos;
        Reply(connection, Plain(Packet::Type::SUBACK, packet.id, granted ? packet.qos : 0x80));
        if (passesOn && granted)
            DeliverRetained(connection, packet.topic);
        break;
    }
    case Packet::Type::PUBLISH:
        Keep(packet);
        if (passesOn)
            Deliver(packet.topic, packet.payload);
        if (packet.qos > 0)
            Reply(connection, Plain(Packet::Type::PUBACK, packet.id));
        if (packet.qos > 0 && connection.fate == Connection::Fate::CONFUSED) {
            Reply(connection, Plain(Packet::Type::PUBACK, packet.id));
            Reply(connection, Plain(Packet::Type::PUBACK, 30'000 + random.Between(0, 9)));
        }
        break;
    case Packet::Type::PINGREQ:
        Reply(connection, Plain(Packet::Type::PINGRESP));
        break;
    case Packet::Type::DISCONNECT:
        connection.goodBye = true;
        Close(connection);
        break;
    default:
        break;
    }
}

void ScriptedBroker::Keep(const Packet& publication) {
    received.insert(publication.payload);
    if (!publication.retained)
        return;
    if (publication.payload.empty())
        retained.erase(publication.topic);
    else
        retained[publication.topic] = publication.payload;
}

void ScriptedBroker::OnConnect(Connection& connection, const Packet& packet) {
    using Fate = Connection::Fate;
    connection.client = packet.topic;
    if (connection.fate == Fate::DROPPED_AT_ONCE) {
        Close(connection);
        return;
    }
    if (connection.fate == Fate::REFUSED || behaviour == Behaviour::REFUSING) {
        Reply(connection, Plain(Packet::Type::CONNACK, 0, random.Between(1, 6)));
        connection.closing = true;
        return;
    }
    // A client's new connection takes the place of its old one.
    for (const auto& other : connections)
        if (other.get() != &connection && other->client == connection.client && other->isAccepted)
            Close(*other);
    connection.isAccepted = true;
    const Time late = connection.fate == Fate::LATE ? static_cast<Time>(random.Between(1000, 14'000)) * MILLISECOND : 0;
    Reply(connection, Plain(Packet::Type::CONNACK), late);
    if (connection.fate == Fate::CONFUSED && random.OneIn(3))
        Reply(connection, Plain(Packet::Type::CONNACK, 0, random.OneIn(2) ? 0 : 2));
    if (connection.fate == Fate::EVICTED)
        connection.closing = true;
    if (connection.packetsUntilFate == 0)
        ApplyFate(connection);
}

// What was drawn for this connection comes true.
void ScriptedBroker::ApplyFate(Connection& connection) {
    switch (connection.fate) {
    case Connection::Fate::DROPPED_LATER:
        Close(connection);
        break;
    case Connection::Fate::CUT_IN_A_PACKET:
        Reply(connection, Plain(Packet::Type::HALF));
        connection.closing = true;
        break;
    case Connection::Fate::NONSENSE:
        Reply(connection, Plain(Packet::Type::MALFORMED));
        break;
    case Connection::Fate::MUTE_LATER:
        connection.fate = Connection::Fate::MUTE;
        break;
    default:
        break;
    }
}

void ScriptedBroker::Reply(Connection& connection, Packet packet, Time later) {
    Time due = sim.Now() + later + connection.latency;
    if (!connection.answers.empty())
        due = std::max(due, connection.answers.back().due);
    connection.answers.push_back({due, std::move(packet)});
}

void ScriptedBroker::Close(Connection& connection) {
    if (connection.closed)
        return;
    sim.Trace("    broker closes the connection of " + connection.client);
    connection.closed = true;
    // What was on its way arrives, but for a reset.
    if (random.OneIn(3))
        connection.toClient.clear();
    connection.answers.clear();
    connection.toBroker.clear();
    if (connection.isAccepted && !connection.goodBye)
        SpeakLastWill(connection);
}

void ScriptedBroker::SpeakLastWill(Connection& connection) {
    const Will& will = connection.will;
    if (will.topic.empty())
        return;
    ++wills[connection.client];
    Packet message = Plain(Packet::Type::PUBLISH);
    message.topic = will.topic;
    message.payload = will.message;
    message.retained = will.retained;
    Keep(message);
    if (passesOn)
        Deliver(message.topic, message.payload);
}

std::string Text(const Packet& packet) {
    static const char* const names[] = {"CONNECT", "CONNACK",  "SUBSCRIBE",  "SUBACK",        "PUBLISH", "PUBACK",
                                        "PINGREQ", "PINGRESP", "DISCONNECT", "half a packet", "nonsense"};
    std::string text = names[static_cast<int>(packet.type)];
    text += " id " + std::to_string(packet.id) + " code " + std::to_string(packet.code);
    if (!packet.topic.empty())
        text += " " + packet.topic + "=" + packet.payload + " qos " + std::to_string(packet.qos);
    return text + (packet.retained ? " retained" : "") + (packet.again ? " again" : "");
}

} // namespace OrvLab
