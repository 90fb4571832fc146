// SPDX-License-Identifier: Apache-2.0
#include "CloudRace.h"

#include <fcntl.h>
#include <mosquitto.h>
#include <openssl/err.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr auto STAGGER = 250ms;
constexpr auto SLOW_HANDSHAKE = 1500ms;

} // namespace

struct CloudRace::Runner {
    std::string address;
    std::unique_ptr<int> answer; // lives longer than the client
    MosquittoHandle client;
    int socket = -1;
    bool reached = false; // TCP is connected
    bool driven = false;  // TLS is under way
    std::string failure;  // it has ended
};

void MosquittoDeleter::operator()(mosquitto* handle) const {
    mosquitto_destroy(handle);
}

int PendingError(int socket) {
    int error = 0;
    socklen_t size = sizeof(error);
    getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size);
    return error;
}

int Step(mosquitto* client, std::uint32_t events) {
    ERR_clear_error(); // libmosquitto takes an old error for one of this step
    int result = MOSQ_ERR_SUCCESS;
    if ((events & (EPOLLIN | EPOLLERR | EPOLLHUP)) != 0)
        result = mosquitto_loop_read(client, 1);
    if (result == MOSQ_ERR_SUCCESS && (events & EPOLLOUT) != 0)
        result = mosquitto_loop_write(client, 1);
    return result;
}

std::string FailureOf(int result, int socketError, const TlsContext& tls, int socket) {
    std::string seen = tls.Reason(socket);
    if (!seen.empty())
        return seen;
    if (socketError != 0)
        return std::generic_category().message(socketError);
    if (result == MOSQ_ERR_TLS)
        return "the TLS handshake has failed without a reason: is it a TLS server that answers there?";
    if (result == MOSQ_ERR_ERRNO)
        return std::generic_category().message(errno);
    return mosquitto_strerror(result);
}

CloudRace::CloudRace(EventLoop& eventLoop, Handler raceHandler)
    : loop(eventLoop),
      handler(std::move(raceHandler)),
      stagger(eventLoop, [this] { OnStagger(); }),
      slowHandshake(eventLoop, [this] { OnSlowHandshake(); }) {}

CloudRace::~CloudRace() {
    Stop();
}

void CloudRace::Begin(const CloudSettings& cloudSettings, const Dialled& found, int keepAlive) {
    Stop();
    settings = cloudSettings;
    dialled = &found;
    protocolKeepAlive = keepAlive;
    for (const std::string& address : found.addresses)
        runners.push_back(std::make_unique<Runner>(Runner{address, nullptr, nullptr, -1, false, false, {}}));
    stagger.Once(0ms);
}

void CloudRace::Stop() {
    stagger.Stop();
    slowHandshake.Stop();
    for (const auto& runner : runners) {
        if (runner->socket >= 0)
            loop.Forget(runner->socket);
    }
    runners.clear();
    started = 0;
    allowed = 1;
    nextIsDue = false;
}

std::string CloudRace::Summary() const {
    std::string text;
    for (std::size_t i = 0; i < started; ++i) {
        const Runner& runner = *runners[i];
        const std::string& what = !runner.failure.empty() ? runner.failure : "no answer from the cloud";
        if (runners.size() == 1)
            return what;
        text += (text.empty() ? "" : "; ") + runner.address + ": " + what;
    }
    return text;
}

int CloudRace::Driven() const {
    return static_cast<int>(std::count_if(runners.begin(), runners.end(), [](const auto& one) { return one->driven; }));
}

void CloudRace::OnStagger() {
    nextIsDue = true;
    Continue();
}

void CloudRace::OnSlowHandshake() {
    if (Driven() >= allowed)
        ++allowed;
    Continue();
}

/// Whatever can be done now; to be called when something has changed.
void CloudRace::Continue() {
    for (const auto& runner : runners) {
        if (Driven() < allowed && runner->reached && !runner->driven && runner->failure.empty()) {
            runner->driven = true;
            slowHandshake.Once(SLOW_HANDSHAKE);
            loop.Change(runner->socket, EPOLLIN | EPOLLOUT); // it may have got far already
        }
    }
    const bool waiting = std::any_of(runners.begin(), runners.begin() + static_cast<std::ptrdiff_t>(started),
                                     [](const auto& one) { return one->failure.empty() && !one->driven; });
    if (Driven() < allowed && (nextIsDue || !waiting))
        StartNext();
    if (started == runners.size() &&
        std::all_of(runners.begin(), runners.end(), [](const auto& one) { return !one->failure.empty(); })) {
        const std::string reason = Summary();
        Stop();
        handler.onFailed(reason);
    }
}

void CloudRace::StartNext() {
    nextIsDue = false;
    while (started < runners.size()) {
        stagger.Once(STAGGER);
        if (Start(*runners[started++]))
            return;
    }
}

bool CloudRace::Start(Runner& runner) {
    runner.answer = std::make_unique<int>(-1);
    runner.client.reset(mosquitto_new(settings.clientId.c_str(), true, runner.answer.get()));
    mosquitto* const client = runner.client.get();
    if (client == nullptr) {
        runner.failure = "cannot make an MQTT client: " + std::generic_category().message(errno);
        return false;
    }
    mosquitto_connect_callback_set(client,
                                   [](mosquitto*, void* answer, int result) { *static_cast<int*>(answer) = result; });
    if (!settings.user.empty())
        mosquitto_username_pw_set(client, settings.user.c_str(),
                                  dialled->password.empty() ? nullptr : dialled->password.c_str());
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_int_option(client, MOSQ_OPT_SSL_CTX_WITH_DEFAULTS, 0);
    mosquitto_void_option(client, MOSQ_OPT_SSL_CTX, dialled->tls->Native());
    ERR_clear_error(); // as in Step: here the handshake is tried for the first time
    const int result = mosquitto_connect_async(client, runner.address.c_str(), settings.port, protocolKeepAlive);
    runner.socket = mosquitto_socket(client);
    if (result != MOSQ_ERR_SUCCESS || runner.socket < 0) {
        const std::string seen = dialled->tls->LastReason(); // a quick server answers within this call
        runner.failure = !seen.empty() ? seen : FailureOf(result, 0, *dialled->tls, -1);
        runner.socket = -1;
        runner.client.reset();
        return false;
    }
    fcntl(runner.socket, F_SETFD, FD_CLOEXEC);
    loop.Watch(runner.socket, EPOLLOUT, [this, &runner](std::uint32_t events) { OnSocket(runner, events); });
    return true;
}

void CloudRace::Watch(Runner& runner) {
    std::uint32_t events = 0;
    if (runner.driven)
        events = EPOLLIN | (mosquitto_want_write(runner.client.get()) ? EPOLLOUT : 0U);
    else if (!runner.reached)
        events = EPOLLOUT;
    loop.Change(runner.socket, events);
}

void CloudRace::OnSocket(Runner& runner, std::uint32_t events) {
    // Taken first, because the library tells only that the connection is lost, not why.
    const bool broken = (events & (EPOLLERR | EPOLLHUP)) != 0;
    const int error = broken ? PendingError(runner.socket) : 0;
    if (runner.driven)
        return Drive(runner, events, error);
    // The library's first try of a handshake may have taken the error of a refused connection.
    if (broken)
        return End(runner, error == 0 || error == ECONNREFUSED ? "the connection was refused"
                                                               : std::generic_category().message(error));
    runner.reached = true;
    Watch(runner);
    Continue();
}

void CloudRace::Drive(Runner& runner, std::uint32_t events, int error) {
    mosquitto* const client = runner.client.get();
    const bool broken = (events & (EPOLLERR | EPOLLHUP)) != 0;
    // Reading is what drives a handshake. Writing would send CONNECT to a server that may be about to refuse us: what
    // it says of that would be lost with the connection.
    int result = Step(client, EPOLLIN);
    // In a handshake the library takes some errors for a reason to wait.
    if (result == MOSQ_ERR_SUCCESS && (broken || mosquitto_socket(client) != runner.socket))
        result = MOSQ_ERR_CONN_LOST;
    if (result != MOSQ_ERR_SUCCESS)
        return End(runner, FailureOf(result, error, *dialled->tls, runner.socket));
    if (!dialled->tls->Seen(runner.socket).done)
        return Watch(runner);
    Winner winner{std::move(runner.client), runner.socket, std::move(runner.answer)};
    loop.Forget(winner.socket);
    runner.socket = -1;
    Stop();
    handler.onWon(std::move(winner));
}

void CloudRace::End(Runner& runner, const std::string& reason) {
    loop.Forget(runner.socket);
    runner.socket = -1;
    runner.client.reset();
    runner.driven = false;
    runner.failure = reason;
    StartNext();
    Continue();
}

} // namespace GatewayApp
