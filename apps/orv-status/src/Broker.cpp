// SPDX-License-Identifier: Apache-2.0
#include "Broker.h"

#include "Pieces.h"

#include <base/Text.h>
#include <log/LogEscape.h>
#include <mosquitto.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string_view>
#include <utility>

namespace OrvStatus {

using namespace std::chrono_literals;
using OrvPlatform::Escaped;

namespace {

constexpr const char* EVERYTHING = "/orv/#";
constexpr auto RETRY = 1s;
constexpr auto PATIENCE = 1200ms; // for the broker to take a connection
constexpr int KEEP_ALIVE = 5;
constexpr std::size_t SHOWN_BYTES = 200;
constexpr std::size_t TOPIC_BYTES = 256;
constexpr std::size_t MOST_TOPICS = 500;

std::string FailureText(int result, int systemError) {
    return result == MOSQ_ERR_ERRNO ? OrvPlatform::ErrorText(systemError) : mosquitto_strerror(result);
}

} // namespace

void Broker::Destroy::operator()(mosquitto* handle) const {
    mosquitto_destroy(handle);
}

Broker::Broker(BrokerSettings brokerSettings)
    : settings(std::move(brokerSettings)), clientId(Joined({"orv-status-", std::to_string(getpid())})) {
    mosquitto_lib_init();
    view.address = settings.port == 0 ? settings.host : Joined({settings.host, ":", std::to_string(settings.port)});
}

Broker::~Broker() {
    if (client)
        mosquitto_disconnect(client.get()); // written at once when the socket takes it
}

int Broker::Socket() const {
    return client ? mosquitto_socket(client.get()) : -1;
}

bool Broker::WantsWrite() const {
    return client && mosquitto_want_write(client.get());
}

bool Broker::TakeChanged() {
    return std::exchange(changed, false);
}

void Broker::Away(const std::string& reason) {
    client.reset();
    changed = changed || view.state != Known::AWAY || view.reason != reason;
    view.state = Known::AWAY;
    view.reason = reason;
    view.complete = false;
    view.left = 0;
    view.topics.clear(); // what was retained may be another text by now
}

void Broker::Begin(Time now) {
    begun = now;
    nextTry = now + RETRY;
    client.reset(mosquitto_new(clientId.c_str(), true, this));
    if (!client)
        return Away("no client can be made");
    mosquitto_int_option(client.get(), MOSQ_OPT_TCP_NODELAY, 1);
    if (!settings.user.empty())
        mosquitto_username_pw_set(client.get(), settings.user.c_str(), settings.password.c_str());
    // Exceptions do not pass through C.
    mosquitto_connect_callback_set(
        client.get(), [](mosquitto*, void* self, int code) noexcept { static_cast<Broker*>(self)->OnConnected(code); });
    mosquitto_message_callback_set(client.get(), [](mosquitto*, void* self, const mosquitto_message* message) noexcept {
        static_cast<Broker*>(self)->OnMessage(*message);
    });
    mosquitto_subscribe_callback_set(client.get(), [](mosquitto*, void* self, int id, int, const int*) noexcept {
        auto& broker = *static_cast<Broker*>(self);
        if (id == broker.lastSubscription)
            broker.view.complete = broker.changed = true;
    });
    const int result = mosquitto_connect_async(client.get(), settings.host.c_str(), settings.port, KEEP_ALIVE);
    if (result != MOSQ_ERR_SUCCESS)
        Away(FailureText(result, errno));
}

void Broker::OnConnected(int code) {
    if (code != 0) {
        view.reason = Joined({"it refuses: ", mosquitto_connack_string(code)});
        return;
    }
    view.state = Known::PRESENT;
    view.reason.clear();
    changed = true;
    // The broker sends what it has retained before it looks at the next packet.
    mosquitto_subscribe(client.get(), nullptr, EVERYTHING, 0);
    mosquitto_subscribe(client.get(), &lastSubscription, GREEN, 0);
}

void Broker::OnMessage(const mosquitto_message& message) {
    const std::string_view whole(message.topic);
    const std::string topic = Joined({Escaped(whole.substr(0, TOPIC_BYTES)), whole.size() > TOPIC_BYTES ? "..." : ""});
    const auto bytes = static_cast<std::size_t>(std::max(message.payloadlen, 0));
    const std::string_view payload(static_cast<const char*>(message.payload), std::min(bytes, SHOWN_BYTES));
    changed = true;
    if (bytes == 0) {
        view.topics.erase(topic); // so a retained message is taken back
        return;
    }
    if (view.topics.size() >= MOST_TOPICS && view.topics.count(topic) == 0) {
        ++view.left;
        return;
    }
    view.topics[topic] = {Escaped(payload), bytes, message.retain};
}

void Broker::Step(Time now) {
    if (!client) {
        if (now >= nextTry)
            Begin(now);
        return;
    }
    int result = mosquitto_loop_write(client.get(), 1);
    int systemError = errno;
    constexpr int mostPackets = 64;
    for (int packet = 0; packet < mostPackets && result == MOSQ_ERR_SUCCESS; ++packet) {
        errno = 0;
        result = mosquitto_loop_read(client.get(), 1);
        systemError = errno;
        if (systemError == EAGAIN)
            break;
    }
    if (result == MOSQ_ERR_SUCCESS)
        result = mosquitto_loop_misc(client.get());
    if (result == MOSQ_ERR_SUCCESS && Socket() < 0)
        result = MOSQ_ERR_CONN_LOST;
    if (result != MOSQ_ERR_SUCCESS)
        return Away(view.reason.rfind("it refuses", 0) == 0 ? std::string(view.reason)
                                                            : FailureText(result, systemError));
    if (view.state != Known::PRESENT && now - begun > PATIENCE)
        Away("it does not answer");
}

} // namespace OrvStatus
