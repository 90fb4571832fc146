// SPDX-License-Identifier: Apache-2.0
#include "CloudDialer.h"

#include <netdb.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

namespace GatewayApp {

namespace {

constexpr int MAX_HELPERS = 4;
constexpr std::size_t MAX_ADDRESSES = 16;

std::atomic<int> helpers{0};

std::vector<std::string> Resolve(const std::string& host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (getaddrinfo(host.c_str(), nullptr, &hints, &found) != 0)
        return {};
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
    std::vector<std::string> addresses;
    for (const addrinfo* one = found; one != nullptr && addresses.size() < MAX_ADDRESSES; one = one->ai_next) {
        std::array<char, NI_MAXHOST> text{};
        if (getnameinfo(one->ai_addr, one->ai_addrlen, text.data(), text.size(), nullptr, 0, NI_NUMERICHOST) == 0)
            addresses.emplace_back(text.data());
    }
    return addresses;
}

/// The own address from which the kernel would reach this one; empty when there is no route.
std::string SourceTowards(const std::string& address) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_DGRAM; // connecting it asks for the route only
    hints.ai_flags = AI_NUMERICHOST | AI_NUMERICSERV;
    addrinfo* found = nullptr;
    if (getaddrinfo(address.c_str(), "9", &hints, &found) != 0)
        return {};
    const std::unique_ptr<addrinfo, decltype(&freeaddrinfo)> owner(found, &freeaddrinfo);
    const Descriptor probe(socket(found->ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (probe.Number() < 0 || connect(probe.Number(), found->ai_addr, found->ai_addrlen) != 0)
        return {};
    return OwnAddress(probe.Number());
}

Dialled Begin(const CloudSettings& settings) {
    Dialled result;
    try {
        result.password = ReadPassword(settings);
        auto tls = std::make_unique<TlsContext>(settings);
        result.addresses = InTurn(Resolve(settings.host));
        if (result.addresses.empty())
            result.failure = "cannot resolve " + settings.host;
        else
            result.tls = std::move(tls);
    } catch (const std::runtime_error& error) {
        result.failure = error.what();
    }
    return result;
}

} // namespace

std::vector<std::string> InTurn(const std::vector<std::string>& addresses) {
    const auto isSix = [](const std::string& address) { return address.find(':') != std::string::npos; };
    std::vector<std::string> first;
    std::vector<std::string> second;
    for (const std::string& address : addresses)
        (isSix(address) == isSix(addresses.front()) ? first : second).push_back(address);
    std::vector<std::string> result;
    for (std::size_t i = 0; i < std::max(first.size(), second.size()); ++i) {
        if (i < first.size())
            result.push_back(first[i]);
        if (i < second.size())
            result.push_back(second[i]);
    }
    return result;
}

std::vector<std::string> WithoutDetours(const std::vector<std::string>& addresses,
                                        const std::function<bool(const std::string& source)>& isDetour) {
    std::vector<std::string> rest;
    bool reached = false;
    for (const std::string& address : addresses) {
        const std::string source = SourceTowards(address);
        if (isDetour(source))
            continue;
        rest.push_back(address);
        reached = reached || !source.empty();
    }
    return reached ? rest : addresses;
}

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

struct CloudDialer::Call {
    CloudSettings settings;
    Callback callback;  // run on the loop's thread only
    bool wanted = true; // the loop's thread's
    Dialled dialled;    // the helper's until it posts
};

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
    const auto answer = [call = current] {
        if (call->wanted)
            call->callback(std::move(call->dialled));
    };
    if (helpers >= MAX_HELPERS) {
        current->dialled.failure = "cannot resolve " + settings.host + ": earlier look-ups still wait for name servers";
        mailbox->Post(answer);
        return;
    }
    ++helpers;
    try {
        // The call itself has no share in the mailbox, which may keep it for ever when the loop has gone.
        std::thread([call = current, box = mailbox, answer = answer]() mutable {
            call->dialled = Begin(call->settings);
            box->Post(std::move(answer));
            // Once no helper is counted the process may end, and with it the libraries that free what these hold.
            call.reset();
            box.reset();
            --helpers;
        }).detach();
    } catch (const std::system_error& error) {
        --helpers;
        current->dialled.failure = std::string("cannot start a thread for the look-up: ") + error.what();
        mailbox->Post(answer);
    }
}

} // namespace GatewayApp
