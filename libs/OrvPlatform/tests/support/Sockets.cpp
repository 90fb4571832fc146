// SPDX-License-Identifier: Apache-2.0
#include "Sockets.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <system_error>

namespace OrvTest {

namespace {

sockaddr_in Loopback(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

Descriptor BindToLoopback(std::uint16_t port) {
    Descriptor socket(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = Loopback(port);
    if (bind(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        Fail("bind");
    return socket;
}

} // namespace

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
    if (this != &other) {
        Close();
        descriptor = std::exchange(other.descriptor, -1);
    }
    return *this;
}

void Descriptor::Close() {
    if (descriptor >= 0)
        close(std::exchange(descriptor, -1));
}

Descriptor ListenOnLoopback(std::uint16_t port, int backlog) {
    Descriptor listener = BindToLoopback(port);
    if (listen(listener.Get(), backlog) != 0)
        Fail("listen");
    return listener;
}

std::uint16_t PortOf(const Descriptor& socket) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    if (getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0)
        Fail("getsockname");
    return ntohs(address.sin_port);
}

ReservedPort::ReservedPort() : holder(BindToLoopback(0)) {}

Descriptor ConnectToLoopback(std::uint16_t port, const char* numeric) {
    Descriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address = Loopback(port);
    inet_pton(AF_INET, numeric, &address.sin_addr);
    const int on = 1;
    setsockopt(connection.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    if (connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0)
        connection.Close();
    return connection;
}

Descriptor BeginConnectToLoopback(std::uint16_t port) {
    Descriptor connection(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const sockaddr_in address = Loopback(port);
    connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    return connection;
}

bool HasInput(int descriptor, std::chrono::milliseconds limit) {
    pollfd wait{descriptor, POLLIN, 0};
    return poll(&wait, 1, static_cast<int>(limit.count())) > 0;
}

bool ReadWhole(int descriptor, char* bytes, std::size_t size, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (size > 0) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (!HasInput(descriptor, std::max(left, std::chrono::milliseconds(0))))
            return false;
        const ssize_t count = recv(descriptor, bytes, size, 0);
        if (count <= 0)
            return false;
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
    return true;
}

bool WriteWhole(int descriptor, const std::string& bytes) {
    std::size_t written = 0;
    while (written < bytes.size()) {
        const ssize_t count = send(descriptor, bytes.data() + written, bytes.size() - written, MSG_NOSIGNAL);
        if (count <= 0)
            return false;
        written += static_cast<std::size_t>(count);
    }
    return true;
}

} // namespace OrvTest
