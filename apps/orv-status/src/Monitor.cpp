// SPDX-License-Identifier: Apache-2.0
#include "Monitor.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>

namespace OrvStatus {

using namespace std::chrono_literals;

namespace {

constexpr auto PACE = 200ms; // for what no descriptor tells of: the broker's timekeeping

Moment Now() {
    timespec monotonic{};
    timespec wall{};
    clock_gettime(CLOCK_MONOTONIC, &monotonic);
    clock_gettime(CLOCK_REALTIME, &wall);
    tm parts{};
    gmtime_r(&wall.tv_sec, &parts);
    char text[40];
    const std::size_t size = std::strftime(text, sizeof(text), "%Y-%m-%dT%H:%M:%S", &parts);
    std::snprintf(text + size, sizeof(text) - size, ".%03dZ", static_cast<int>(wall.tv_nsec / 1000000));
    return {text, static_cast<double>(monotonic.tv_sec) + static_cast<double>(monotonic.tv_nsec) / 1e9};
}

} // namespace

Monitor::Monitor(const MonitorSettings& settings)
    : broker(settings.broker),
      network(settings.ethernet, settings.cellular),
      connman(settings.busAddress),
      application(settings.statusFile),
      hasEndpoint(settings.hasEndpoint) {}

void Monitor::Settle(Clock::time_point deadline) {
    const auto settled = [this] {
        const ConnmanView view = connman.View();
        const bool told = view.state != Known::UNKNOWN || !view.reason.empty();
        return broker.Settled() && told;
    };
    broker.Step(Clock::now());
    while (!settled() && Clock::now() < deadline)
        Poll(deadline, -1, -1);
}

bool Monitor::Wait(Clock::time_point deadline, int wake) {
    while (!news && Clock::now() < deadline) {
        if (!Poll(deadline, wake, STDOUT_FILENO))
            return false;
    }
    return true;
}

bool Monitor::Poll(Clock::time_point deadline, int wake, int output) {
    const short forBroker = static_cast<short>(POLLIN | (broker.WantsWrite() ? POLLOUT : 0));
    constexpr short onlyItsEnd = 0;
    std::array<pollfd, 6> all{{{broker.Socket(), forBroker, 0},
                               {network.Descriptor(), POLLIN, 0},
                               {connman.Descriptor(), POLLIN, 0},
                               {application.Descriptor(), POLLIN, 0},
                               {output, onlyItsEnd, 0},
                               {wake, POLLIN, 0}}};
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    poll(all.data(), all.size(), static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, PACE.count())));
    broker.Step(Clock::now());
    news = broker.TakeChanged() || news; // asked in any case: that takes the news away
    if (application.Descriptor() >= 0)
        news = application.Changed() || news;
    news = news || all[1].revents != 0 || all[2].revents != 0;
    return all[4].revents == 0 && all[5].revents == 0;
}

Snapshot Monitor::Take() {
    Snapshot snapshot;
    news = false;
    network.TakeNotifications();
    connman.TakeChanged();
    snapshot.at = Now();
    snapshot.broker = broker.View();
    snapshot.network = network.Read();
    snapshot.connman = connman.View();
    snapshot.hasEndpoint = hasEndpoint;
    snapshot.application = application.Read(snapshot.at.monotonic);
    if (snapshot.broker.state == Known::UNKNOWN)
        snapshot.broker.reason = "no answer in time";
    if (snapshot.connman.state == Known::UNKNOWN && snapshot.connman.reason.empty())
        snapshot.connman.reason = "no answer in time";
    return snapshot;
}

} // namespace OrvStatus
