// SPDX-License-Identifier: Apache-2.0
#include "CloudConnection.h"

#include "SignsOfLife.h"

#include <fcntl.h>
#include <mosquitto.h>
#include <netdb.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr BackOff::Duration kFirstRetry = 500ms;
constexpr BackOff::Duration kLongestRetry = 10s;
constexpr auto kAttemptLimit = 5s;
constexpr auto kLasting = 10s;

std::string OwnAddress(int socket) {
    sockaddr_storage address{};
    socklen_t size = sizeof(address);
    char text[NI_MAXHOST] = {};
    auto* generic = static_cast<sockaddr*>(static_cast<void*>(&address));
    if (getsockname(socket, generic, &size) != 0 ||
        getnameinfo(generic, size, text, sizeof(text), nullptr, 0, NI_NUMERICHOST) != 0)
        return {};
    return text;
}

bool HasPeer(int socket) {
    sockaddr_storage address{};
    socklen_t size = sizeof(address);
    return getpeername(socket, static_cast<sockaddr*>(static_cast<void*>(&address)), &size) == 0;
}

int PendingError(int socket) {
    int error = 0;
    socklen_t size = sizeof(error);
    getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

} // namespace

CloudConnection::CloudConnection(EventLoop& eventLoop, CloudSettings cloudSettings, Handler cloudHandler,
                                 BackOff::Random random)
    : loop(eventLoop),
      handler(std::move(cloudHandler)),
      settings(std::move(cloudSettings)),
      dialer(eventLoop),
      backOff(kFirstRetry, kLongestRetry, std::move(random)),
      deadline(eventLoop, [this] { OnDeadline(); }),
      keepAlive(eventLoop, [this] { CheckLife(); }) {
    mosquitto_lib_init();
}

CloudConnection::~CloudConnection() {
    Drop();
}

void CloudConnection::Reopen(const CloudSettings& cloudSettings, const std::string& reason) {
    settings = cloudSettings;
    Reopen(reason);
}

void CloudConnection::Reopen(const std::string& reason) {
    const bool was = Connected();
    Drop();
    backOff.Reset();
    if (!settings.host.empty())
        Dial();
    if (was)
        handler.onLost(reason);
}

bool CloudConnection::BegunSince(std::chrono::steady_clock::time_point moment) const {
    return state != State::CLOSED && state != State::WAITING && begun >= moment;
}

void CloudConnection::Close() {
    const bool was = Connected();
    if (was)
        mosquitto_disconnect(client.get()); // written at once when the socket takes it
    Drop();
    if (was)
        handler.onLost("closed");
}

void CloudConnection::Dial() {
    state = State::DIALLING;
    begun = std::chrono::steady_clock::now();
    deadline.Once(kAttemptLimit);
    dialer.Dial(settings, [this](Dialled dialled) { OnDialled(std::move(dialled)); });
}

void CloudConnection::OnDialled(Dialled dialled) {
    if (!dialled.handle)
        return End(dialled.failure);
    state = State::CONNECTING;
    client = std::move(dialled.handle);
    answer = -1;
    mosquitto_user_data_set(client.get(), this);
    mosquitto_connect_callback_set(
        client.get(), [](mosquitto*, void* self, int result) { static_cast<CloudConnection*>(self)->answer = result; });
    socket = mosquitto_socket(client.get());
    if (socket < 0)
        return End("the connection ended at once");
    fcntl(socket, F_SETFD, FD_CLOEXEC);
    SetFastLossDetection(socket);
    watchedEvents = EPOLLIN | EPOLLOUT;
    loop.Watch(socket, watchedEvents, [this](std::uint32_t events) { OnSocket(events); });
}

void CloudConnection::OnSocket(std::uint32_t events) {
    int result = MOSQ_ERR_SUCCESS;
    // Taken first, because the library tells only that the connection is lost, not why.
    const bool broken = (events & (EPOLLERR | EPOLLHUP)) != 0;
    const int systemError = broken ? PendingError(socket) : 0;
    // The library's handshake may have taken the error of a refused connection and waits on.
    if (broken && systemError == 0 && !HasPeer(socket))
        return End("the connection was refused");
    if (broken || (events & EPOLLIN) != 0)
        result = mosquitto_loop_read(client.get(), 1);
    if (result == MOSQ_ERR_SUCCESS && (events & EPOLLOUT) != 0)
        result = mosquitto_loop_write(client.get(), 1);
    AfterStep(result, systemError);
}

void CloudConnection::AfterStep(int result, int systemError) {
    if (systemError != 0)
        return End(std::generic_category().message(systemError));
    if (answer > 0)
        return End(std::string("the broker refused: ") + mosquitto_connack_string(answer));
    if (result == MOSQ_ERR_ERRNO)
        return End(std::generic_category().message(errno));
    if (result != MOSQ_ERR_SUCCESS || mosquitto_socket(client.get()) != socket)
        return End(mosquitto_strerror(result != MOSQ_ERR_SUCCESS ? result : MOSQ_ERR_CONN_LOST));
    const std::uint32_t wanted = EPOLLIN | (mosquitto_want_write(client.get()) ? EPOLLOUT : 0U);
    if (wanted != watchedEvents)
        loop.Change(socket, wanted);
    watchedEvents = wanted;
    if (answer == 0 && state == State::CONNECTING) {
        state = State::CONNECTED;
        deadline.Stop();
        since = std::chrono::steady_clock::now();
        keepAlive.Once(AskAgain(socket));
        source = OwnAddress(socket);
        handler.onConnected(source);
    }
}

void CloudConnection::CheckLife() {
    if (SilentFor(socket) > kSilence)
        return End("no sign of life from the cloud");
    keepAlive.Once(AskAgain(socket));
    AfterStep(mosquitto_loop_misc(client.get()), 0);
}

void CloudConnection::OnDeadline() {
    if (state == State::WAITING)
        return Dial();
    End(state == State::DIALLING ? "no answer from the name servers" : "no answer from the cloud");
}

void CloudConnection::End(const std::string& reason) {
    const bool was = Connected();
    Drop();
    state = State::WAITING;
    // The first attempt after a loss comes at once: often only the connection is gone, not the path. A broker that
    // takes connections only to end them is not worth that.
    const bool lasting = was && std::chrono::steady_clock::now() - since >= kLasting;
    if (lasting)
        backOff.Reset();
    const BackOff::Duration delay = lasting ? BackOff::Duration(0) : backOff.Next();
    deadline.Once(delay);
    if (was)
        handler.onLost(reason);
    else
        handler.onFailed(reason, delay);
}

void CloudConnection::Drop() {
    dialer.Abandon();
    deadline.Stop();
    keepAlive.Stop();
    if (socket >= 0)
        loop.Forget(socket);
    socket = -1;
    client.reset();
    source.clear();
    state = State::CLOSED;
}

} // namespace GatewayApp
