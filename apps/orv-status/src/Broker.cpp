// SPDX-License-Identifier: Apache-2.0
#include "Broker.h"

#include "Pieces.h"

#include <base/Text.h>
#include <log/LogEscape.h>
#include <mosquitto.h>
#include <mqtt_protocol.h>
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

std::string RefusalText(int code, bool version5) {
    const char* const text = version5 ? mosquitto_reason_string(code) : mosquitto_connack_string(code);
    // The codes of the two versions do not overlap.
    const bool isAboutUser = code == MQTT_RC_BAD_USERNAME_OR_PASSWORD || code == MQTT_RC_NOT_AUTHORIZED ||
                             code == CONNACK_REFUSED_BAD_USERNAME_PASSWORD || code == CONNACK_REFUSED_NOT_AUTHORIZED;
    if (!isAboutUser)
        return text;
    // The texts of version 3.1.1 end in a full stop.
    return Joined(
        {text, version5 ? "." : "",
         " Set a user and password that it knows: username and password in [broker] of gateway.ini, or --user "
         "and --password-file"});
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

void Broker::Disconnected(Known state, const std::string& reason) {
    client.reset();
    changed = changed || view.state != state || view.reason != reason;
    view.state = state;
    view.reason = reason;
    view.complete = false;
    view.left = 0;
    view.topics.clear(); // what was retained may be another text by now
}

void Broker::Begin(Time now, bool inVersion5) {
    begun = now;
    version5 = inVersion5;
    refusal.clear();
    nextTry = now + RETRY;
    client.reset(mosquitto_new(clientId.c_str(), true, this));
    if (!client)
        return Away("no client can be made");
    mosquitto_int_option(client.get(), MOSQ_OPT_TCP_NODELAY, 1);
    if (version5)
        mosquitto_int_option(client.get(), MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
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
        if (code != MQTT_RC_UNSUPPORTED_PROTOCOL_VERSION)
            refusal = RefusalText(code, version5);
        return;
    }
    view.state = Known::PRESENT;
    view.reason.clear();
    changed = true;
    // Of two subscriptions that match the broker takes either, so both ask for the same.
    const int options = version5 ? MQTT_SUB_OPT_RETAIN_AS_PUBLISHED : 0;
    // The broker sends what it has retained before it looks at the next packet.
    mosquitto_subscribe_v5(client.get(), nullptr, EVERYTHING, 0, options, nullptr);
    mosquitto_subscribe_v5(client.get(), &lastSubscription, GREEN, 0, options, nullptr);
}

void Broker::OnMessage(const mosquitto_message& message) {
    const std::string_view whole(message.topic);
    const std::string topic = Joined({Escaped(whole.substr(0, TOPIC_BYTES)), whole.size() > TOPIC_BYTES ? "..." : ""});
    const auto bytes = static_cast<std::size_t>(std::max(message.payloadlen, 0));
    const std::string_view payload(static_cast<const char*>(message.payload), std::min(bytes, SHOWN_BYTES));
    changed = true;
    // In version 3.1.1 a live message has no mark, whether it is retained or not.
    std::optional<bool> retained;
    if (version5 || message.retain)
        retained = message.retain;
    if (bytes == 0 && retained.value_or(true)) {
        view.topics.erase(topic); // so a retained message is taken back
        return;
    }
    if (view.topics.size() >= MOST_TOPICS && view.topics.count(topic) == 0) {
        ++view.left;
        return;
    }
    view.topics[topic] = {Escaped(payload), bytes, retained};
}

void Broker::Step(Time now) {
    if (!client) {
        if (now >= nextTry)
            Begin(now, true);
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
    if (result != MOSQ_ERR_SUCCESS && version5 && refusal.empty() && view.state != Known::PRESENT)
        return Begin(now, false);
    if (result != MOSQ_ERR_SUCCESS)
        return refusal.empty() ? Away(FailureText(result, systemError)) : Disconnected(Known::REFUSING, refusal);
    if (view.state != Known::PRESENT && now - begun > PATIENCE)
        Away("it does not answer");
}

} // namespace OrvStatus
