// SPDX-License-Identifier: Apache-2.0
#include "broker/MosquittoClient.h"

#include "base/Deadline.h"

#include "broker/MqttText.h"
#include "broker/ProcessLock.h"
#include "broker/SocketPair.h"

#include <fcntl.h>
#include <mosquitto.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace OrvPlatform {

namespace {

// The return codes of an MQTT 3.1.1 CONNACK.
enum ConnackCode : int {
    UNACCEPTABLE_PROTOCOL_VERSION = 1,
    IDENTIFIER_REJECTED,
    SERVER_UNAVAILABLE,
    BAD_USER_NAME_OR_PASSWORD,
    NOT_AUTHORISED
};

// The library seeds rand() and is not safe for two threads here; it is never cleaned up, as another part of the process
// may be using it too.
void InitialiseLibrary() {
    const ProcessLock lock;
    static bool isInitialised = false;
    if (!isInitialised)
        mosquitto_lib_init();
    isInitialised = true;
}

// A close with unread input resets the connection, and the broker then loses what was sent last: the DISCONNECT too.
void CloseOnceBrokerHas(int socket, MosquittoClient::Time deadline) {
    shutdown(socket, SHUT_WR);
    char waste[4096];
    pollfd wait{socket, POLLIN, 0};
    for (;;) {
        const int ready = poll(&wait, 1, PollTimeout(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            break;
        const ssize_t count = recv(socket, waste, sizeof waste, MSG_DONTWAIT);
        if (count == 0 || (count < 0 && errno != EINTR && errno != EAGAIN))
            break;
        if (PollTimeout(deadline) == 0)
            break;
    }
    close(socket);
}

} // namespace

std::unique_ptr<MosquittoClient> MosquittoClient::Make(const MosquittoSettings& settings, MosquittoEvents& events,
                                                       int& error) {
    InitialiseLibrary();
    std::unique_ptr<MosquittoClient> client(new MosquittoClient(settings, events));
    error = client->handle ? client->Configure(settings) : MOSQ_ERR_INVAL;
    if (error != MOSQ_ERR_SUCCESS)
        client.reset();
    return client;
}

MosquittoClient::MosquittoClient(const MosquittoSettings& settings, MosquittoEvents& receiver)
    : host(settings.host), port(settings.port), keepAlive(settings.keepAlive), events(&receiver) {
    // The library makes a pair of sockets to wake a thread of its own. It has none here, so the bytes that it writes
    // with each packet stay unread, until they fill the pair's buffer: 200 KB of the kernel's memory.
    // Clients that are made at the same moment would take each other's pairs for an application's.
    const ProcessLock lock;
    const PairedSockets before = FindPairedSockets();
    handle.reset(mosquitto_new(settings.clientId.c_str(), true, this));
    const int systemError = errno;
    RestrainUnreadPair(before);
    errno = systemError;
}

MosquittoClient::~MosquittoClient() = default;

int MosquittoClient::Configure(const MosquittoSettings& settings) {
    mosquitto* client = handle.get();
    mosquitto_connect_callback_set(client, OnConnectCallback);
    mosquitto_disconnect_callback_set(client, OnDisconnectCallback);
    mosquitto_message_callback_set(client, OnMessageCallback);
    mosquitto_publish_callback_set(client, OnPublishCallback);
    mosquitto_subscribe_callback_set(client, OnSubscribeCallback);
    // Publishing only queues, Write() sends: otherwise a message for a broken connection is kept and sent later.
    mosquitto_threaded_set(client, true);
    // The library would hold back what exceeds a window of 20 and forget it on disconnect; we bound the bytes instead.
    mosquitto_max_inflight_messages_set(client, 0);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    if (!settings.username.empty()) {
        const int error = mosquitto_username_pw_set(client, settings.username.c_str(), settings.password.c_str());
        if (error != MOSQ_ERR_SUCCESS)
            return error;
    }
    if (!settings.will)
        return MOSQ_ERR_SUCCESS;
    const LastWill& will = *settings.will;
    return mosquitto_will_set(client, will.topic.c_str(), static_cast<int>(will.message.size()), will.message.data(), 1,
                              will.retained);
}

int MosquittoClient::BeginConnect() {
    const ProcessLock lock; // no child is made before the socket is closed on exec
    return SetCloseOnExec(
        mosquitto_connect_async(handle.get(), host.c_str(), port, static_cast<int>(keepAlive.count())));
}

int MosquittoClient::BeginReconnect() {
    const ProcessLock lock;
    return SetCloseOnExec(mosquitto_reconnect_async(handle.get()));
}

int MosquittoClient::SetCloseOnExec(int error) {
    const int systemError = errno;
    // A child process that inherits the socket would keep the connection, and the silence of the last will, alive.
    if (const int socket = Socket(); socket >= 0)
        fcntl(socket, F_SETFD, FD_CLOEXEC);
    errno = systemError;
    return error;
}

int MosquittoClient::Socket() const {
    return mosquitto_socket(handle.get());
}

bool MosquittoClient::WantsWrite() const {
    return mosquitto_want_write(handle.get());
}

int MosquittoClient::Read() {
    // One packet a call: reading on while input waits saves a poll a message, the limit keeps others from starving.
    constexpr int mostPackets = 32;
    for (int packet = 0; packet < mostPackets; ++packet) {
        const int error = mosquitto_loop_read(handle.get(), 1);
        int waiting = 0;
        if (error != MOSQ_ERR_SUCCESS)
            return error;
        if (ioctl(Socket(), FIONREAD, &waiting) != 0 || waiting == 0)
            break;
    }
    return MOSQ_ERR_SUCCESS;
}

int MosquittoClient::Write() {
    return mosquitto_loop_write(handle.get(), 1);
}

int MosquittoClient::KeepAlive() {
    return mosquitto_loop_misc(handle.get());
}

int MosquittoClient::Subscribe(const std::string& filter, int qos, int& messageId) {
    return mosquitto_subscribe(handle.get(), &messageId, filter.c_str(), qos);
}

int MosquittoClient::Publish(const std::string& topic, const std::string& payload, bool assured, bool retained,
                             int& messageId) {
    return mosquitto_publish(handle.get(), &messageId, topic.c_str(), static_cast<int>(payload.size()), payload.data(),
                             assured ? 1 : 0, retained);
}

void MosquittoClient::Disconnect(Time deadline) {
    End(deadline, true);
}

void MosquittoClient::DropConnection(Time deadline) {
    End(deadline, false);
}

void MosquittoClient::End(Time deadline, bool withDisconnect) {
    events = nullptr;
    // The library closes its descriptor the moment the DISCONNECT is written.
    const int socket = Socket() >= 0 ? fcntl(Socket(), F_DUPFD_CLOEXEC, 0) : -1;
    if (withDisconnect)
        mosquitto_disconnect(handle.get());
    WriteAll(deadline);
    handle.reset();
    if (socket >= 0)
        CloseOnceBrokerHas(socket, deadline);
}

void MosquittoClient::WriteAll(Time deadline) {
    while (Socket() >= 0 && WantsWrite()) {
        pollfd wait{Socket(), POLLOUT, 0};
        const int ready = poll(&wait, 1, PollTimeout(deadline));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0 || Write() != MOSQ_ERR_SUCCESS)
            return;
    }
}

void MosquittoClient::Destroyer::operator()(mosquitto* client) const noexcept {
    mosquitto_destroy(client);
}

void MosquittoClient::OnConnectCallback(mosquitto*, void* self, int code) noexcept {
    if (MosquittoEvents* events = static_cast<MosquittoClient*>(self)->events)
        events->OnConnack(code);
}

void MosquittoClient::OnDisconnectCallback(mosquitto*, void* self, int error) noexcept {
    if (MosquittoEvents* events = static_cast<MosquittoClient*>(self)->events)
        events->OnDisconnected(error);
}

void MosquittoClient::OnMessageCallback(mosquitto*, void* self, const mosquitto_message* message) noexcept {
    if (MosquittoEvents* events = static_cast<MosquittoClient*>(self)->events)
        events->OnMessage(message->topic, message->payload, static_cast<std::size_t>(message->payloadlen));
}

void MosquittoClient::OnPublishCallback(mosquitto*, void* self, int messageId) noexcept {
    if (MosquittoEvents* events = static_cast<MosquittoClient*>(self)->events)
        events->OnPublishCompleted(messageId);
}

void MosquittoClient::OnSubscribeCallback(mosquitto*, void* self, int messageId, int count,
                                          const int* granted) noexcept {
    constexpr int refused = 0x80;
    if (MosquittoEvents* events = static_cast<MosquittoClient*>(self)->events)
        events->OnSuback(messageId, count > 0 && granted[0] < refused);
}

namespace {

/// What to do about a connection that was not made.
std::string RemedyFor(int systemError) {
    switch (systemError) {
    case ECONNREFUSED:
        return "; is the broker running?";
    case ENOENT: // of a unix socket, as the next two
        return "; is the broker running, and does it listen there?";
    case EACCES:
        return "; let this program's user or group into the socket's folder and at the socket";
    case EAGAIN:
        return "; the broker takes no connections, does it hang?";
    default:
        return {};
    }
}

} // namespace

std::string FaultIn(const MosquittoSettings& settings) {
    const auto about = [](const std::string& what, const std::string& text, const char* fault) {
        return what + " \"" + Shortened(text) + "\" " + fault;
    };
    if (const char* fault = FaultOfText(settings.clientId))
        return about("the client id", settings.clientId, fault);
    if (const char* fault = settings.username.empty() ? nullptr : FaultOfText(settings.username))
        return about("[broker] username", settings.username, fault);
    if (!settings.will)
        return {};
    if (const char* fault = FaultOfTopic(settings.will->topic))
        return about("the last will's topic", settings.will->topic, fault);
    if (settings.will->message.size() > UINT16_MAX)
        return "the last will's message is longer than 65535 bytes";
    return {};
}

std::string MosquittoErrorText(int error, int systemError) {
    switch (error) {
    case MOSQ_ERR_ERRNO:
        return std::generic_category().message(systemError) + RemedyFor(systemError);
    case MOSQ_ERR_CONN_LOST:
        return "the broker closed the connection";
    case MOSQ_ERR_KEEPALIVE:
        return "the broker does not answer any more";
    case MOSQ_ERR_PROTOCOL:
        return "the peer does not speak MQTT, is it a broker?";
    default:
        return mosquitto_strerror(error);
    }
}

std::string RefusalText(int code) {
    switch (code) {
    case UNACCEPTABLE_PROTOCOL_VERSION:
        return "it does not speak MQTT 3.1.1; use a broker that does";
    case IDENTIFIER_REJECTED:
        return "it does not accept the client id; shorten client_id_suffix or keep to letters and digits";
    case SERVER_UNAVAILABLE:
        return "it is not available; look into its own log";
    case BAD_USER_NAME_OR_PASSWORD:
        return "wrong user name or password; compare [broker] username and password with the broker's password file";
    case NOT_AUTHORISED:
        return "not authorised; set [broker] username and password, and look into the broker's access list";
    default:
        return "refusal code " + std::to_string(code);
    }
}

} // namespace OrvPlatform
