// SPDX-License-Identifier: Apache-2.0
// libmosquitto as its users see it, with its oddities, on the scripted broker. Like the real one it is not safe for two
// threads at a time with one client, and says so.
#include "broker/FakeMosquitto.h"
#include "broker/Wire.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

using OrvLab::Connection;
using OrvLab::Descriptors;
using OrvLab::Packet;
using OrvLab::Simulation;
using OrvLab::Wire;

namespace {

/// One thread in the library with this client.
class Use {
public:
    Use(mosquitto* handle, const char* call) : client(handle) {
        Simulation& sim = *Simulation::Current();
        if (Wire::Living().count(client) == 0)
            sim.Fail(std::string(call) + " with a client that was destroyed");
        isOutermost = client->user_thread == nullptr;
        if (!isOutermost && client->user_thread != &sim.Self())
            sim.Fail(std::string(call) + " while " + client->user_thread->name + " is in the library with this client");
        client->user_thread = &sim.Self();
        sim.Step(call);
    }
    ~Use() {
        if (isOutermost)
            client->user_thread = nullptr;
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;

private:
    mosquitto* client;
    bool isOutermost;
};

OrvLab::Time Now() {
    return Simulation::Current()->Now();
}

void CloseSocket(mosquitto* client) {
    if (client->socket >= 0)
        Descriptors::Of().Close(client->socket);
    client->socket = -1;
    client->connection.reset();
    client->isActive = false;
}

int End(mosquitto* client, int error, int systemError = 0) {
    CloseSocket(client);
    errno = systemError;
    if (client->onDisconnect != nullptr)
        OrvLab::Watch([&] { client->onDisconnect(client, client->user, client->isDisconnecting ? 0 : error); });
    return error;
}

int Open(mosquitto* client) {
    CloseSocket(client);
    client->out.clear();
    client->isDisconnecting = client->stands = false;
    client->pinged = 0;
    client->lastIn = client->lastOut = Now();
    client->connection = Wire::broker->Accept(client->id);
    if (!client->connection) {
        errno = ECONNREFUSED;
        return MOSQ_ERR_ERRNO;
    }
    client->socket = Descriptors::Of().Open(client->connection);
    client->connection->client = client->id;
    client->connection->will = client->will;
    Packet hello;
    hello.type = Packet::Type::CONNECT;
    hello.topic = client->id;
    client->out.push_back(hello);
    return MOSQ_ERR_SUCCESS;
}

int OnConnack(mosquitto* client, int code) {
    if (client->onConnect != nullptr)
        OrvLab::Watch([&] { client->onConnect(client, client->user, code); });
    if (code != 0)
        return code <= 5 ? MOSQ_ERR_CONN_REFUSED : MOSQ_ERR_PROTOCOL;
    if (!client->isActive)
        ++client->accepted;
    client->isActive = true;
    for (Packet& message : client->unacknowledged) {
        message.again = true;
        client->out.push_back(message);
    }
    return MOSQ_ERR_SUCCESS;
}

void OnMessage(mosquitto* client, const Packet& packet) {
    if (packet.qos > 0) {
        Packet acknowledgement;
        acknowledgement.type = Packet::Type::PUBACK;
        acknowledgement.id = packet.id;
        client->out.push_back(acknowledgement);
    }
    if (Wire::onMessage != nullptr)
        Wire::onMessage(client->id, packet);
    std::string topic = packet.topic;
    std::string payload = packet.payload;
    mosquitto_message message{packet.id,  topic.data(),   payload.data(), static_cast<int>(payload.size()),
                              packet.qos, packet.retained};
    OrvLab::Watch([&] { client->onMessage(client, client->user, &message); });
}

int Handle(mosquitto* client, const Packet& packet) {
    switch (packet.type) {
    case Packet::Type::CONNACK:
        return OnConnack(client, packet.code);
    case Packet::Type::PUBLISH:
        OnMessage(client, packet);
        return MOSQ_ERR_SUCCESS;
    case Packet::Type::PUBACK: {
        const auto found = std::find_if(client->unacknowledged.begin(), client->unacknowledged.end(),
                                        [&](const Packet& one) { return one.id == packet.id; });
        if (found == client->unacknowledged.end())
            return MOSQ_ERR_SUCCESS;
        client->unacknowledged.erase(found);
        OrvLab::Watch([&] { client->onPublish(client, client->user, packet.id); });
        return MOSQ_ERR_SUCCESS;
    }
    case Packet::Type::SUBACK:
        OrvLab::Watch([&] { client->onSubscribe(client, client->user, packet.id, 1, &packet.code); });
        return MOSQ_ERR_SUCCESS;
    case Packet::Type::PINGRESP:
        client->pinged = 0;
        return MOSQ_ERR_SUCCESS;
    case Packet::Type::HALF:
        return MOSQ_ERR_SUCCESS;
    default:
        return MOSQ_ERR_PROTOCOL;
    }
}

int NextId(mosquitto* client) {
    client->lastId = client->lastId == 65535 ? 1 : client->lastId + 1;
    return client->lastId;
}

} // namespace

extern "C" {

int mosquitto_lib_init() {
    const OrvLab::Unwatched unwatched;
    return MOSQ_ERR_SUCCESS;
}

mosquitto* mosquitto_new(const char* id, bool /*clean*/, void* user) {
    const OrvLab::Unwatched unwatched;
    Simulation::Current()->Step("mosquitto_new");
    auto* client = new mosquitto;
    client->id = id;
    client->user = user;
    client->lastId = Wire::lastId;
    Wire::Living().insert(client);
    return client;
}

void mosquitto_destroy(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    {
        const Use use(client, "mosquitto_destroy");
        Wire::Living().erase(client);
        CloseSocket(client);
    }
    delete client;
}

void mosquitto_connect_callback_set(mosquitto* client, void (*callback)(mosquitto*, void*, int)) {
    const OrvLab::Unwatched unwatched;
    client->onConnect = callback;
}
void mosquitto_disconnect_callback_set(mosquitto* client, void (*callback)(mosquitto*, void*, int)) {
    const OrvLab::Unwatched unwatched;
    client->onDisconnect = callback;
}
void mosquitto_message_callback_set(mosquitto* client, void (*callback)(mosquitto*, void*, const mosquitto_message*)) {
    const OrvLab::Unwatched unwatched;
    client->onMessage = callback;
}
void mosquitto_publish_callback_set(mosquitto* client, void (*callback)(mosquitto*, void*, int)) {
    const OrvLab::Unwatched unwatched;
    client->onPublish = callback;
}
void mosquitto_subscribe_callback_set(mosquitto* client, void (*callback)(mosquitto*, void*, int, int, const int*)) {
    const OrvLab::Unwatched unwatched;
    client->onSubscribe = callback;
}

int mosquitto_threaded_set(mosquitto* /*client*/, bool /*threaded*/) {
    const OrvLab::Unwatched unwatched;
    return MOSQ_ERR_SUCCESS;
}
int mosquitto_max_inflight_messages_set(mosquitto* /*client*/, unsigned /*most*/) {
    const OrvLab::Unwatched unwatched;
    return MOSQ_ERR_SUCCESS;
}
int mosquitto_int_option(mosquitto* /*client*/, mosq_opt_t /*option*/, int /*value*/) {
    const OrvLab::Unwatched unwatched;
    return MOSQ_ERR_SUCCESS;
}
int mosquitto_username_pw_set(mosquitto* /*client*/, const char* /*name*/, const char* /*password*/) {
    const OrvLab::Unwatched unwatched;
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_will_set(mosquitto* client, const char* topic, int size, const void* payload, int /*qos*/, bool retain) {
    const OrvLab::Unwatched unwatched;
    client->will = {topic, std::string(static_cast<const char*>(payload), static_cast<std::size_t>(size)), retain};
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_connect_async(mosquitto* client, const char* /*host*/, int /*port*/, int keepAlive) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_connect_async");
    client->keepAlive = keepAlive * OrvLab::SECOND;
    return Open(client);
}

int mosquitto_reconnect_async(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_reconnect_async");
    return Open(client);
}

int mosquitto_disconnect(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_disconnect");
    client->isDisconnecting = true;
    if (client->socket < 0)
        return MOSQ_ERR_NO_CONN;
    Packet goodBye;
    goodBye.type = Packet::Type::DISCONNECT;
    client->out.push_back(goodBye);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_socket(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_socket");
    return client->socket;
}

bool mosquitto_want_write(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_want_write");
    return !client->out.empty();
}

int mosquitto_loop_read(mosquitto* client, int /*packets*/) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_loop_read");
    if (client->socket < 0)
        return MOSQ_ERR_NO_CONN;
    Connection& connection = *client->connection;
    if (connection.toClient.empty())
        return connection.closed ? End(client, MOSQ_ERR_CONN_LOST) : MOSQ_ERR_SUCCESS;
    const Packet packet = std::move(connection.toClient.front());
    connection.toClient.pop_front();
    client->lastIn = Now();
    Simulation::Current()->Trace("    " + client->id + " reads: " + Text(packet));
    const int error = Handle(client, packet);
    return error == MOSQ_ERR_SUCCESS ? error : End(client, error);
}

int mosquitto_loop_write(mosquitto* client, int /*packets*/) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_loop_write");
    if (client->socket < 0)
        return MOSQ_ERR_NO_CONN;
    while (!client->out.empty()) {
        if (client->connection->closed)
            return End(client, MOSQ_ERR_CONN_LOST);
        if (!client->connection->TakesMore())
            break;
        const Packet packet = std::move(client->out.front());
        client->out.pop_front();
        client->connection->toBroker.push_back(packet);
        client->lastOut = Now();
        if (packet.type == Packet::Type::PUBLISH && packet.qos == 0)
            OrvLab::Watch([&] { client->onPublish(client, client->user, packet.id); });
        if (packet.type == Packet::Type::DISCONNECT) {
            End(client, MOSQ_ERR_SUCCESS);
            return MOSQ_ERR_SUCCESS;
        }
    }
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_loop_misc(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_loop_misc");
    if (client->socket < 0)
        return MOSQ_ERR_NO_CONN;
    const OrvLab::Time now = Now();
    if (now - client->lastOut >= client->keepAlive || now - client->lastIn >= client->keepAlive) {
        if (!client->isActive || client->pinged != 0)
            return End(client, MOSQ_ERR_KEEPALIVE);
        Packet ping;
        client->out.push_back(ping);
        client->lastOut = client->lastIn = client->pinged = now;
    }
    if (client->pinged != 0 && now - client->pinged >= client->keepAlive)
        return End(client, MOSQ_ERR_KEEPALIVE);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_subscribe(mosquitto* client, int* id, const char* filter, int qos) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_subscribe");
    if (qos < 0 || qos > 2)
        return MOSQ_ERR_INVAL;
    if (client->socket < 0)
        return MOSQ_ERR_NO_CONN;
    Packet packet;
    packet.type = Packet::Type::SUBSCRIBE;
    packet.topic = filter;
    packet.qos = qos;
    packet.id = *id = NextId(client);
    client->out.push_back(packet);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_publish(mosquitto* client, int* id, const char* topic, int size, const void* payload, int qos,
                      bool retain) {
    const OrvLab::Unwatched unwatched;
    const Use use(client, "mosquitto_publish");
    Packet packet;
    packet.type = Packet::Type::PUBLISH;
    packet.topic = topic;
    packet.payload.assign(static_cast<const char*>(payload), static_cast<std::size_t>(size));
    packet.qos = qos;
    packet.retained = retain;
    packet.id = *id = NextId(client);
    if (Wire::onPublish != nullptr)
        Wire::onPublish(client->id, packet);
    // Without a connection the library refuses an assured message, and sends it later all the same.
    if (qos > 0)
        client->unacknowledged.push_back(packet);
    if (client->socket < 0)
        return MOSQ_ERR_NO_CONN;
    client->out.push_back(packet);
    return MOSQ_ERR_SUCCESS;
}
}
