// SPDX-License-Identifier: Apache-2.0
#include "EventLoop.h"

#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>
#include <utility>

namespace GatewayApp {

namespace {

[[noreturn]] void Fail(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

timespec ToTimespec(std::chrono::nanoseconds time) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(time);
    timespec result{};
    result.tv_sec = static_cast<decltype(result.tv_sec)>(seconds.count());
    result.tv_nsec = static_cast<decltype(result.tv_nsec)>((time - seconds).count());
    return result;
}

} // namespace

Descriptor::~Descriptor() {
    if (number >= 0)
        close(number);
}

EventLoop::EventLoop() : epoll(epoll_create1(EPOLL_CLOEXEC)) {
    if (epoll.Number() < 0)
        Fail("make an event loop");
}

EventLoop::~EventLoop() = default;

void EventLoop::Control(int operation, int descriptor, std::uint32_t events, std::uint64_t ticket) {
    epoll_event event{};
    event.events = events;
    event.data.u64 = ticket;
    if (epoll_ctl(epoll.Number(), operation, descriptor, &event) != 0)
        Fail("watch a descriptor");
}

void EventLoop::Watch(int descriptor, std::uint32_t events, Callback callback) {
    const std::uint64_t ticket = ++lastTicket;
    Control(EPOLL_CTL_ADD, descriptor, events, ticket);
    watched[descriptor] = Watched{ticket, std::make_shared<Callback>(std::move(callback))};
    tickets[ticket] = descriptor;
}

void EventLoop::Change(int descriptor, std::uint32_t events) {
    Control(EPOLL_CTL_MOD, descriptor, events, watched.at(descriptor).ticket);
}

void EventLoop::Forget(int descriptor) {
    const auto found = watched.find(descriptor);
    if (found == watched.end())
        return;
    tickets.erase(found->second.ticket);
    watched.erase(found);
    // Fails when the descriptor is closed already; then the kernel has forgotten it by itself.
    epoll_ctl(epoll.Number(), EPOLL_CTL_DEL, descriptor, nullptr);
}

void EventLoop::Run() {
    quitting = false;
    std::array<epoll_event, 16> events{};
    while (!quitting) {
        const int count = epoll_wait(epoll.Number(), events.data(), static_cast<int>(events.size()), -1);
        if (count < 0 && errno != EINTR)
            Fail("wait for events");
        for (int i = 0; i < count; ++i) {
            const epoll_event event = events.at(static_cast<std::size_t>(i));
            const std::uint64_t number = event.data.u64; // a copy: the structure is packed on some processors
            const auto ticket = tickets.find(number);
            if (ticket == tickets.end())
                continue; // forgotten by a callback of the same round
            const std::shared_ptr<Callback> callback = watched.at(ticket->second).callback;
            (*callback)(event.events);
        }
    }
}

Timer::Timer(EventLoop& eventLoop, std::function<void()> callback)
    : loop(eventLoop), descriptor(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK)) {
    if (descriptor.Number() < 0)
        Fail("make a timer");
    loop.Watch(descriptor.Number(), EPOLLIN, [this, callback = std::move(callback)](std::uint32_t) {
        std::uint64_t expirations = 0;
        if (read(descriptor.Number(), &expirations, sizeof(expirations)) == sizeof(expirations))
            callback();
    });
}

Timer::~Timer() {
    loop.Forget(descriptor.Number());
}

void Timer::Once(std::chrono::milliseconds delay) {
    // A timer descriptor takes zero for "off".
    Set(std::max<std::chrono::nanoseconds>(delay, std::chrono::nanoseconds(1)), std::chrono::nanoseconds(0));
}

void Timer::Every(std::chrono::milliseconds period) {
    Set(period, period);
}

void Timer::Stop() {
    Set(std::chrono::nanoseconds(0), std::chrono::nanoseconds(0));
}

void Timer::Set(std::chrono::nanoseconds first, std::chrono::nanoseconds period) {
    const itimerspec setting{ToTimespec(period), ToTimespec(first)};
    if (timerfd_settime(descriptor.Number(), 0, &setting, nullptr) != 0)
        Fail("set a timer");
}

} // namespace GatewayApp
