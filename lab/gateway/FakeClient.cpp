// SPDX-License-Identifier: Apache-2.0
// The MQTT library as the cloud connection uses it, and TLS below it. What the library does with its socket by itself,
// it does here, too: it closes it as soon as anything is wrong.
#include "CloudRace.h"
#include "TlsContext.h"
#include "gateway/World.h"

#include <mosquitto.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>
#include <string>
#include <utility>

namespace GatewayApp {

/// What the cloud's TLS is known by here; the application's class calls this one its friend.
struct TlsCallbacks {
    static void Began(TlsContext& tls, int socket) {
        tls.seen[socket] = {};
        tls.lastSocket = socket;
    }
    static TlsObservation& Of(TlsContext& tls, int socket) { return tls.seen[socket]; }
};

TlsContext::TlsContext(const CloudSettings& settings)
    : owned(true), context(reinterpret_cast<ssl_ctx_st*>(this)), host(settings.host) {
    const OrvLab::Unwatched unwatched;
    OrvLab::World& world = OrvLab::World::Of("TlsContext");
    world.sim.Step("read the credentials");
    if (world.files.OneIn(world.faultyFiles))
        throw std::runtime_error("cannot read the certificate");
    world.tlsContexts.insert(this);
}

/// For libcurl's connections.
TlsContext::TlsContext(const CloudSettings& settings, ssl_ctx_st* foreign)
    : owned(false), context(foreign), host(settings.host) {
    const OrvLab::Unwatched unwatched;
    OrvLab::World& world = OrvLab::World::Of("TlsContext");
    if (world.files.OneIn(world.faultyFiles))
        throw std::runtime_error("cannot read the certificate");
    world.tlsContexts.insert(this);
}

TlsContext::~TlsContext() {
    const OrvLab::Unwatched unwatched;
    OrvLab::World::Of("~TlsContext").tlsContexts.erase(this);
}

const TlsObservation& TlsContext::Seen(int socket) const {
    const OrvLab::Unwatched unwatched;
    static const TlsObservation nothing;
    const auto found = seen.find(socket);
    return found == seen.end() ? nothing : found->second;
}

std::string TlsContext::Reason(int socket) const {
    const OrvLab::Unwatched unwatched;
    return Seen(socket).alertReceived >= 0 ? "the server refuses the certificate" : "";
}

} // namespace GatewayApp

using GatewayApp::TlsCallbacks;
using GatewayApp::TlsContext;
using OrvLab::CloudSocket;
using OrvLab::Descriptors;
using OrvLab::Said;
using OrvLab::Time;
using OrvLab::World;

struct mosquitto {
    void* user = nullptr;
    void (*onConnect)(mosquitto*, void*, int) = nullptr;
    TlsContext* tls = nullptr;
    int number = -1;
    std::shared_ptr<CloudSocket> socket;
    int owner = 0; // the thread
    Time keepAlive = 0;
    Time lastHeard = 0;
    Time pinged = OrvLab::NEVER;
    bool greeted = false;
    bool secure = false;
    bool toSend = false; // CONNECT
    bool toPing = false; // the socket did not take it
    bool answered = false;
    bool welcome = false;
};

namespace {

World& Enter(const mosquitto* client, const char* call) {
    World& world = World::Of(call);
    world.sim.Step(call);
    if (client->owner != world.sim.Self().number)
        world.sim.Fail(std::string(call) + " on another thread than the client's");
    if (world.sim.Self().locks != 0)
        world.sim.Fail(std::string(call) + " and holds a lock");
    if (client->socket && world.tlsContexts.count(client->tls) == 0)
        world.sim.Fail(std::string(call) + ", and its TLS is gone already");
    return world;
}

int Lose(mosquitto* client, int result) {
    if (!client->socket)
        return result;
    client->socket->closed = true;
    close(client->number);
    client->number = -1;
    const auto socket = std::move(client->socket);
    client->socket.reset();
    const World* const world = World::Present();
    if (world->onUndone)
        world->onUndone();
    if (client->welcome && world->onClosed)
        world->onClosed(*socket);
    client->welcome = false;
    return result;
}

int Hear(mosquitto* client, Said said) {
    const int number = client->number;
    switch (said) {
    case Said::HELLO:
        if (client->secure)
            break;
        TlsCallbacks::Of(*client->tls, number).done = true;
        client->secure = client->toSend = client->socket->secure = true;
        return MOSQ_ERR_SUCCESS;
    case Said::ALERT:
        TlsCallbacks::Of(*client->tls, number).alertReceived = 42;
        return Lose(client, MOSQ_ERR_TLS);
    case Said::ACCEPTED:
    case Said::REFUSED:
        client->answered = true;
        client->welcome = said == Said::ACCEPTED;
        if (const World* const world = World::Present(); client->welcome && world->onConnack)
            world->onConnack(*client->socket);
        OrvLab::Watch([&] { client->onConnect(client, client->user, said == Said::REFUSED ? 5 : 0); });
        return said == Said::REFUSED ? Lose(client, MOSQ_ERR_CONN_REFUSED) : MOSQ_ERR_SUCCESS;
    case Said::PONG:
        client->pinged = OrvLab::NEVER;
        return MOSQ_ERR_SUCCESS;
    case Said::END:
        break;
    }
    return Lose(client, MOSQ_ERR_CONN_LOST);
}

void Greet(mosquitto* client, World& world) {
    using Tls = CloudSocket::Fate::Tls;
    client->greeted = client->socket->greeted = true;
    if (world.onHello)
        world.onHello(*client->socket);
    if (client->socket->fate.tls != Tls::MUTE)
        client->socket->Ask(client->socket->fate.tls == Tls::GOOD    ? Said::HELLO
                            : client->socket->fate.tls == Tls::ALERT ? Said::ALERT
                                                                     : Said::END);
}

} // namespace

extern "C" {

int mosquitto_lib_init() {
    return MOSQ_ERR_SUCCESS;
}

mosquitto* mosquitto_new(const char* /*id*/, bool /*clean*/, void* user) {
    const OrvLab::Unwatched unwatched;
    World& world = World::Of("mosquitto_new");
    world.sim.Step("mosquitto_new");
    ++world.clients;
    auto made = std::make_unique<mosquitto>();
    made->user = user;
    made->owner = world.sim.Self().number;
    return made.release();
}

void mosquitto_destroy(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    World& world = Enter(client, "mosquitto_destroy");
    Lose(client, 0);
    --world.clients;
    delete client;
}

void mosquitto_connect_callback_set(mosquitto* client, void (*callback)(mosquitto*, void*, int)) {
    const OrvLab::Unwatched unwatched;
    client->onConnect = callback;
}

int mosquitto_username_pw_set(mosquitto* /*client*/, const char* /*user*/, const char* /*password*/) {
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_int_option(mosquitto* /*client*/, mosq_opt_t /*option*/, int /*value*/) {
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_void_option(mosquitto* client, mosq_opt_t option, void* value) {
    const OrvLab::Unwatched unwatched;
    if (option == MOSQ_OPT_SSL_CTX)
        client->tls = static_cast<TlsContext*>(value);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_connect_async(mosquitto* client, const char* host, int /*port*/, int keepAlive) {
    const OrvLab::Unwatched unwatched;
    World& world = Enter(client, "mosquitto_connect_async");
    if (client->tls == nullptr)
        world.sim.Fail("connects without TLS");
    if (world.onDial)
        world.onDial(host);
    client->socket = world.cloud.Connect(host);
    if (!client->socket && world.onUndone)
        world.onUndone();
    errno = ENETUNREACH;
    if (!client->socket)
        return MOSQ_ERR_ERRNO;
    world.sim.Trace(std::string("    client: connects to ") + host);
    client->number = Descriptors::Of().Open(client->socket);
    client->keepAlive = keepAlive * OrvLab::SECOND;
    client->lastHeard = world.sim.Now();
    TlsCallbacks::Began(*client->tls, client->number);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_socket(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    return client->number;
}

bool mosquitto_want_write(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    return client->toSend || client->toPing;
}

int mosquitto_loop_read(mosquitto* client, int /*packets*/) {
    const OrvLab::Unwatched unwatched;
    World& world = Enter(client, "mosquitto_loop_read");
    if (!client->socket)
        return MOSQ_ERR_NO_CONN;
    Said said{};
    if (client->socket->Take(said)) {
        client->lastHeard = world.sim.Now();
        return Hear(client, said);
    }
    if (client->socket->broken)
        return Lose(client, MOSQ_ERR_CONN_LOST);
    if (client->socket->connected && !client->greeted)
        Greet(client, world);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_loop_write(mosquitto* client, int /*packets*/) {
    const OrvLab::Unwatched unwatched;
    World& world = Enter(client, "mosquitto_loop_write");
    if (!client->socket)
        return MOSQ_ERR_NO_CONN;
    if (client->socket->broken)
        return Lose(client, MOSQ_ERR_CONN_LOST);
    if (std::exchange(client->toPing, false))
        client->socket->Ask(Said::PONG);
    if (!client->toSend || !client->secure)
        return MOSQ_ERR_SUCCESS;
    client->toSend = false;
    if (world.onConnect)
        world.onConnect(*client->socket);
    using Answer = CloudSocket::Fate::Answer;
    const Answer answer = client->socket->fate.answer;
    if (answer != Answer::MUTE)
        client->socket->Ask(answer == Answer::ACCEPTED  ? Said::ACCEPTED
                            : answer == Answer::REFUSED ? Said::REFUSED
                                                        : Said::END);
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_loop_misc(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    World& world = Enter(client, "mosquitto_loop_misc");
    if (!client->socket)
        return MOSQ_ERR_NO_CONN;
    const Time now = world.sim.Now();
    if (client->pinged != OrvLab::NEVER && now - client->pinged >= client->keepAlive)
        return Lose(client, MOSQ_ERR_KEEPALIVE);
    if (client->pinged == OrvLab::NEVER && client->answered && now - client->lastHeard >= client->keepAlive) {
        client->pinged = now;
        client->toPing = world.files.OneIn(3);
        if (!client->toPing)
            client->socket->Ask(Said::PONG);
    }
    return MOSQ_ERR_SUCCESS;
}

int mosquitto_disconnect(mosquitto* client) {
    const OrvLab::Unwatched unwatched;
    const World& world = Enter(client, "mosquitto_disconnect");
    if (client->socket && world.onDisconnect)
        world.onDisconnect();
    return client->socket ? MOSQ_ERR_SUCCESS : MOSQ_ERR_NO_CONN;
}

const char* mosquitto_strerror(int /*result*/) {
    return "an error of the library";
}

const char* mosquitto_connack_string(int /*code*/) {
    return "not authorised";
}

void ERR_clear_error() {}
}
