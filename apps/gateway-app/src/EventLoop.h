// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <unordered_map>

namespace GatewayApp {

/// A file descriptor that is closed with its owner.
class Descriptor {
public:
    explicit Descriptor(int fileNumber = -1) : number(fileNumber) {}
    ~Descriptor();
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int Number() const { return number; }

private:
    const int number;
};

/// Waits for descriptors and calls their owners, one at a time, on the thread that runs it. One thread.
class EventLoop {
public:
    /// @param events the EPOLL... flags that were found
    using Callback = std::function<void(std::uint32_t events)>;

    /// @throws std::system_error
    EventLoop();
    ~EventLoop();

    /// Calls `callback` whenever the descriptor has one of `events` (EPOLLIN, EPOLLOUT; errors always). The descriptor
    /// stays the caller's, who calls Forget before closing it. Allowed inside callbacks, as are the others.
    /// @throws std::system_error
    void Watch(int descriptor, std::uint32_t events, Callback callback);
    void Change(int descriptor, std::uint32_t events);
    void Forget(int descriptor);

    /// Serves descriptors until Quit is called.
    void Run();
    void Quit() { quitting = true; }

private:
    struct Watched {
        std::uint64_t ticket; // a descriptor's number may come again, a ticket does not
        std::shared_ptr<Callback> callback;
    };
    void Control(int operation, int descriptor, std::uint32_t events, std::uint64_t ticket);

    Descriptor epoll;
    bool quitting = false;
    std::uint64_t lastTicket = 0;
    std::unordered_map<int, Watched> watched;
    std::unordered_map<std::uint64_t, int> tickets;
};

/// Calls back after a time, once or again and again. Steady clock.
class Timer {
public:
    Timer(EventLoop& eventLoop, std::function<void()> callback);
    ~Timer();

    /// A new time replaces the old one. Zero: as soon as the loop is back.
    void Once(std::chrono::milliseconds delay);
    /// @param period more than zero
    void Every(std::chrono::milliseconds period);
    void Stop();

private:
    void Set(std::chrono::nanoseconds first, std::chrono::nanoseconds period);

    EventLoop& loop;
    Descriptor descriptor;
};

} // namespace GatewayApp
