// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

namespace OrvTest {

/// A descriptor that is closed with its holder.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int number) : descriptor(number) {}
    Descriptor(Descriptor&& other) noexcept : descriptor(std::exchange(other.descriptor, -1)) {}
    Descriptor& operator=(Descriptor&& other) noexcept;
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { Close(); }

    void Close();
    int Get() const { return descriptor; }
    explicit operator bool() const { return descriptor >= 0; }

private:
    int descriptor = -1;
};

/// A TCP socket that listens on 127.0.0.1; port 0 lets the kernel choose. Throws std::system_error.
Descriptor ListenOnLoopback(std::uint16_t port, int backlog);
std::uint16_t PortOf(const Descriptor& socket);

/// A port of 127.0.0.1 that nobody else is given while this lives. Connections to it are refused, until a program
/// listens there that allows the address to be used again (SO_REUSEADDR), as a broker does.
class ReservedPort {
public:
    ReservedPort();
    std::uint16_t Number() const { return PortOf(holder); }

private:
    Descriptor holder;
};

/// A connection to 127.0.0.1, or another address; empty when it is refused.
Descriptor ConnectToLoopback(std::uint16_t port, const char* address = "127.0.0.1");
/// The same without waiting for it to be made.
Descriptor BeginConnectToLoopback(std::uint16_t port);

/// Whether input (or the end) waits on the descriptor within `limit`.
bool HasInput(int descriptor, std::chrono::milliseconds limit);
/// False when the peer is gone or `size` bytes did not come within `limit`.
bool ReadWhole(int descriptor, char* bytes, std::size_t size, std::chrono::milliseconds limit);
bool WriteWhole(int descriptor, const std::string& bytes);

} // namespace OrvTest
