// SPDX-License-Identifier: Apache-2.0
#include "CloudDialer.h"

#include <mosquitto.h>
#include <sys/epoll.h>

#include <atomic>
#include <cerrno>
#include <system_error>
#include <thread>
#include <utility>

namespace GatewayApp {

namespace {

constexpr int kMaxHelpers = 4;
constexpr int kKeepAliveSeconds = 10;

std::atomic<int> helpers{0};

std::string MosquittoText(int result) {
    return result == MOSQ_ERR_ERRNO ? std::generic_category().message(errno) : mosquitto_strerror(result);
}

Dialled Begin(const CloudSettings& settings) {
    MosquittoHandle handle(mosquitto_new(settings.clientId.c_str(), true, nullptr));
    if (!handle)
        return {nullptr, "cannot make an MQTT client: " + std::generic_category().message(errno)};
    int result = settings.caFile.empty()
                     ? mosquitto_int_option(handle.get(), MOSQ_OPT_TLS_USE_OS_CERTS, 1)
                     : mosquitto_tls_set(handle.get(), settings.caFile.c_str(), nullptr, nullptr, nullptr, nullptr);
    if (result != MOSQ_ERR_SUCCESS)
        return {nullptr, "cannot use the CA file '" + settings.caFile + "': " + MosquittoText(result)};
    mosquitto_int_option(handle.get(), MOSQ_OPT_TCP_NODELAY, 1);
    // "async" is about the connection: the name is resolved here, and this is what takes its time.
    result = mosquitto_connect_async(handle.get(), settings.host.c_str(), settings.port, kKeepAliveSeconds);
    if (result == MOSQ_ERR_EAI)
        return {nullptr, "cannot resolve " + settings.host};
    if (result != MOSQ_ERR_SUCCESS)
        return {nullptr, MosquittoText(result)};
    return {std::move(handle), {}};
}

} // namespace

struct CloudDialer::Call {
    CloudSettings settings;
    Callback callback; // run on the loop's thread only
    std::shared_ptr<Mailbox> mailbox;
    bool wanted = true; // the loop's thread's
    Dialled dialled;    // the helper's until it posts
};

void MosquittoDeleter::operator()(mosquitto* handle) const {
    mosquitto_destroy(handle);
}

CloudDialer::CloudDialer(EventLoop& eventLoop) : loop(eventLoop), mailbox(std::make_shared<Mailbox>()) {
    loop.Watch(mailbox->ReadyDescriptor(), EPOLLIN, [this](std::uint32_t) { mailbox->DoAll(); });
}

CloudDialer::~CloudDialer() {
    Abandon();
    loop.Forget(mailbox->ReadyDescriptor());
}

void CloudDialer::Abandon() {
    if (current)
        current->wanted = false;
    current = nullptr;
}

int CloudDialer::Helpers() {
    return helpers;
}

void CloudDialer::Dial(const CloudSettings& settings, Callback callback) {
    Abandon();
    current = std::make_shared<Call>();
    current->settings = settings;
    current->callback = std::move(callback);
    current->mailbox = mailbox;
    const auto answer = [call = current] {
        if (call->wanted)
            call->callback(std::move(call->dialled));
    };
    if (helpers >= kMaxHelpers) {
        current->dialled.failure = "cannot resolve " + settings.host + ": earlier look-ups still wait for name servers";
        mailbox->Post(answer);
        return;
    }
    ++helpers;
    try {
        std::thread([call = current, answer] {
            call->dialled = Begin(call->settings);
            call->mailbox->Post(answer);
            --helpers;
        }).detach();
    } catch (const std::system_error& error) {
        --helpers;
        current->dialled.failure = std::string("cannot start a thread for the look-up: ") + error.what();
        mailbox->Post(answer);
    }
}

} // namespace GatewayApp
