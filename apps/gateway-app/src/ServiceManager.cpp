// SPDX-License-Identifier: Apache-2.0
#include "ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace GatewayApp {

namespace {

std::string Environment(const char* name) {
    const char* value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): read before there is another thread
    return value == nullptr ? std::string() : value;
}

std::int64_t Number(const std::string& text, std::int64_t otherwise) {
    std::int64_t value = otherwise;
    std::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

} // namespace

ServiceManager::ServiceManager() : path(Environment("NOTIFY_SOCKET")) {
    const bool forUs = Number(Environment("WATCHDOG_PID"), getpid()) == getpid();
    const std::chrono::microseconds allowed(Number(Environment("WATCHDOG_USEC"), 0));
    if (forUs && !path.empty())
        watchdogPeriod = std::chrono::duration_cast<std::chrono::milliseconds>(allowed / 2);
}

void ServiceManager::Notify(const std::string& message) {
    sockaddr_un address{};
    if (path.empty() || path.size() >= sizeof(address.sun_path))
        return;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    if (path.front() == '@')
        address.sun_path[0] = '\0'; // a name outside the file system
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size());
    if (!socket || socket->Number() < 0)
        socket = std::make_unique<Descriptor>(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sendto(socket->Number(), message.data(), message.size(), MSG_NOSIGNAL,
           static_cast<const sockaddr*>(static_cast<const void*>(&address)), size);
}

} // namespace GatewayApp
