// SPDX-License-Identifier: Apache-2.0
#include "CloudConnection.h"

#include "Clock.h"

#include <mosquitto.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <utility>

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr BackOff::Duration FIRST_RETRY = 500ms;
constexpr BackOff::Duration LONGEST_RETRY = 10s;
constexpr auto ATTEMPT_LIMIT = 5s;
constexpr auto LASTING = 10s;
constexpr BackOff::Duration LONGEST_FIRST = 2s; // leaves time for attempts before the route moves

/// The protocol's own ping finds a broker that hangs on a machine that answers, and costs more than the kernel's
/// question.
int ProtocolSeconds(const KeepAlive& keepAlive) {
    constexpr int shortest = 10;
    return std::max(shortest, 4 * static_cast<int>(keepAlive.Period().count()));
}

} // namespace

CloudConnection::CloudConnection(EventLoop& eventLoop, CloudSettings cloudSettings, Handler cloudHandler,
                                 BackOff::Random random)
    : loop(eventLoop),
      handler(std::move(cloudHandler)),
      settings(std::move(cloudSettings)),
      dialer(eventLoop),
      race(eventLoop, {[this](CloudRace::Winner winner) { OnWon(std::move(winner)); },
                       [this](const std::string& reason) { End(reason); }}),
      backOff(FIRST_RETRY, LONGEST_RETRY, std::move(random)),
      deadline(eventLoop, [this] { OnDeadline(); }),
      lifeTimer(eventLoop, [this] { CheckLife(); }) {
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
    begun = Now();
    deadline.Once(ATTEMPT_LIMIT);
    dialer.Dial(settings, [this](Dialled found) { OnDialled(std::move(found)); });
}

void CloudConnection::OnDialled(Dialled found) {
    if (!found.tls)
        return End(found.failure);
    state = State::RACING;
    dialled = std::move(found);
    if (handler.isDetour)
        dialled.addresses = WithoutDetours(dialled.addresses, handler.isDetour);
    race.Begin(settings, dialled, ProtocolSeconds(handler.keepAlive()));
}

void CloudConnection::OnWon(CloudRace::Winner winner) {
    state = State::CONNECTING;
    client = std::move(winner.client);
    socket = winner.socket;
    answer = std::move(winner.answer);
    SetLossDetection(socket, handler.keepAlive());
    watchedEvents = EPOLLIN | EPOLLOUT;
    loop.Watch(socket, watchedEvents, [this](std::uint32_t events) { OnSocket(events); });
}

void CloudConnection::OnSocket(std::uint32_t events) {
    // Taken first, because the library tells only that the connection is lost, not why.
    const int systemError = (events & (EPOLLERR | EPOLLHUP)) != 0 ? PendingError(socket) : 0;
    int result = MOSQ_ERR_SUCCESS;
    // libmosquitto finds its handshake complete when it reads, and the server may have nothing to say. What it says
    // instead of an answer, about our certificate, must be read before something is written to a server that has gone.
    if (state == State::CONNECTING)
        result = Step(client.get(), EPOLLIN);
    if (result == MOSQ_ERR_SUCCESS)
        result = Step(client.get(), state == State::CONNECTING ? events | EPOLLIN : events);
    AfterStep(result, systemError);
}

void CloudConnection::AfterStep(int result, int systemError) {
    if (*answer > 0)
        return End(std::string("the broker refused: ") + mosquitto_connack_string(*answer));
    if (result == MOSQ_ERR_SUCCESS && (systemError != 0 || mosquitto_socket(client.get()) != socket))
        result = MOSQ_ERR_CONN_LOST;
    if (result != MOSQ_ERR_SUCCESS)
        return End(FailureOf(result, systemError, *dialled.tls, socket));
    const std::uint32_t wanted = EPOLLIN | (mosquitto_want_write(client.get()) ? EPOLLOUT : 0U);
    if (wanted != watchedEvents)
        loop.Change(socket, wanted);
    watchedEvents = wanted;
    if (*answer == 0 && state == State::CONNECTING)
        Answered();
}

void CloudConnection::Answered() {
    state = State::CONNECTED;
    deadline.Stop();
    since = Now();
    lifeTimer.Once(ProbeWhenOverdue(socket, handler.keepAlive()));
    source = OwnAddress(socket);
    handler.onConnected(source);
}

void CloudConnection::CheckLife() {
    const KeepAlive keepAlive = handler.keepAlive();
    if (silence.IsPassed(keepAlive, SilentFor(socket), Now()))
        return End("no sign of life from the cloud");
    lifeTimer.Once(ProbeWhenOverdue(socket, keepAlive));
    AfterStep(mosquitto_loop_misc(client.get()), 0);
}

std::string CloudConnection::TooLate() const {
    if (state == State::DIALLING)
        return "no answer from the name servers";
    return state == State::RACING ? race.Summary() : "no answer from the cloud's broker, though TLS is connected";
}

void CloudConnection::OnDeadline() {
    if (state == State::WAITING)
        return Dial();
    End(TooLate());
}

void CloudConnection::End(const std::string& reason) {
    const bool was = Connected();
    Drop();
    state = State::WAITING;
    // The first attempt after a loss comes soon: often only the connection is gone, not the path. Not at once, because
    // a broker that restarts loses a whole fleet in one moment. One that takes connections only to end them is not
    // worth it.
    const bool lasting = was && Now() - since >= LASTING;
    const BackOff::Duration delay = lasting ? backOff.First(LONGEST_FIRST) : backOff.Next();
    deadline.Once(delay);
    if (was)
        handler.onLost(reason);
    else
        handler.onFailed(reason, delay);
}

void CloudConnection::Drop() {
    dialer.Abandon();
    race.Stop();
    deadline.Stop();
    lifeTimer.Stop();
    if (socket >= 0)
        loop.Forget(socket);
    socket = -1;
    client.reset();
    answer.reset();
    dialled = {};
    source.clear();
    state = State::CLOSED;
}

} // namespace GatewayApp
