// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Descriptors.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <map>
#include <memory>
#include <sys/epoll.h>
#include <vector>

namespace OrvLab {

/// As timerfd_create() makes them.
class TimerFile final : public OpenFile {
public:
    short Ready() const override;
    long Receive(void* buffer, std::size_t size) override;

    void Set(Time first, Time every) {
        next = first;
        period = every;
    }
    Time Next() const { return next; }

private:
    Time next = NEVER;
    Time period = 0;
};

/// As epoll_create1() makes them, level-triggered. A descriptor that is closed is forgotten.
class EpollFile final : public OpenFile {
public:
    short Ready() const override { return 0; }
    long Receive(void* buffer, std::size_t size) override;

    /// @return 0, or the number of the error
    int Control(int operation, int number, const epoll_event* event);
    /// Those that have something to tell, with what it is.
    std::vector<epoll_event> Found() const;
    /// When a timer among them will have something to tell.
    Time NextTimer() const;
    bool Watches(int number) const { return watched.count(number) != 0; }

private:
    struct Watched {
        std::uint64_t file; // its identity
        epoll_event event;
    };
    std::map<int, Watched> watched;
};

/// How often somebody has come back from epoll_wait.
std::uint64_t Rounds();

} // namespace OrvLab
