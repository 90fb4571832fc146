// SPDX-License-Identifier: Apache-2.0
// The calls of an event loop, over the descriptors of the simulated process.
#include "gateway/EventFiles.h"

#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

namespace OrvLab {

namespace {

std::uint64_t rounds = 0;

Time ToTime(const timespec& time) {
    return static_cast<Time>(time.tv_sec) * SECOND + time.tv_nsec;
}

template <typename File>
File& Existing(int number, const char* call) {
    auto* const file = dynamic_cast<File*>(Descriptors::Of().Find(number));
    if (file == nullptr)
        Simulation::Current()->Fail(std::string(call) + " of a descriptor that is no such");
    return *file;
}

int Wait(Simulation& simulation, const EpollFile& epoll, epoll_event* events, std::size_t room, int milliseconds) {
    simulation.Step("epoll_wait");
    if (simulation.Self().locks != 0)
        simulation.Fail("waits in epoll_wait and holds a lock");
    ++rounds;
    if (simulation.HasSpuriousWakeUps() && simulation.OneInSchedule(30)) {
        errno = EINTR;
        return -1;
    }
    const Time end = milliseconds < 0 ? NEVER : simulation.Now() + milliseconds * MILLISECOND;
    std::vector<epoll_event> found = epoll.Found();
    while (found.empty() && simulation.Now() < end) {
        simulation.Wait(
            "epoll_wait", [&] { return !epoll.Found().empty(); }, std::min(end, epoll.NextTimer()));
        found = epoll.Found();
    }
    // In which order they became ready nobody knows.
    if (found.size() > 1) {
        const auto first = static_cast<std::ptrdiff_t>(simulation.AnyNumber() % found.size());
        std::rotate(found.begin(), found.begin() + first, found.end());
    }
    const std::size_t count = std::min(room, found.size());
    std::copy_n(found.begin(), count, events);
    return static_cast<int>(count);
}

} // namespace

std::uint64_t Rounds() {
    return rounds;
}

short TimerFile::Ready() const {
    return Simulation::Current()->Now() >= next ? POLLIN : 0;
}

long TimerFile::Receive(void* buffer, std::size_t size) {
    const Time now = Simulation::Current()->Now();
    if (now < next || size < sizeof(std::uint64_t)) {
        errno = EAGAIN;
        return -1;
    }
    const std::uint64_t count = period == 0 ? 1 : static_cast<std::uint64_t>((now - next) / period) + 1;
    next = period == 0 ? NEVER : next + static_cast<Time>(count) * period;
    std::memcpy(buffer, &count, sizeof count);
    return sizeof count;
}

long EpollFile::Receive(void* /*buffer*/, std::size_t /*size*/) {
    errno = EINVAL;
    return -1;
}

int EpollFile::Control(int operation, int number, const epoll_event* event) {
    const OpenFile* const file = Descriptors::Of().Find(number);
    if (file == nullptr)
        return EBADF;
    const auto known = watched.find(number);
    const bool stands = known != watched.end() && known->second.file == file->Identity();
    if (operation == EPOLL_CTL_ADD ? stands : !stands)
        return operation == EPOLL_CTL_ADD ? EEXIST : ENOENT;
    if (operation == EPOLL_CTL_DEL)
        watched.erase(known);
    else
        watched[number] = Watched{file->Identity(), *event};
    return 0;
}

std::vector<epoll_event> EpollFile::Found() const {
    std::vector<epoll_event> found;
    for (const auto& [number, one] : watched) {
        const OpenFile* const file = Descriptors::Of().Find(number);
        if (file == nullptr || file->Identity() != one.file)
            continue;
        // Of these the two calls have the same numbers.
        const auto ready = static_cast<std::uint32_t>(file->Ready());
        const std::uint32_t told = ready & (one.event.events | EPOLLERR | EPOLLHUP);
        if (told == 0)
            continue;
        found.push_back(one.event);
        found.back().events = told;
    }
    return found;
}

Time EpollFile::NextTimer() const {
    Time next = NEVER;
    for (const auto& [number, one] : watched) {
        const auto* const timer = dynamic_cast<const TimerFile*>(Descriptors::Of().Find(number));
        if (timer != nullptr && timer->Identity() == one.file)
            next = std::min(next, timer->Next());
    }
    return next;
}

} // namespace OrvLab

using OrvLab::Descriptors;
using OrvLab::Simulation;

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_epoll_create1(int flags);
int __real_epoll_ctl(int epoll, int operation, int number, epoll_event* event);
int __real_epoll_wait(int epoll, epoll_event* events, int room, int milliseconds);
int __real_timerfd_create(int clock, int flags);
int __real_timerfd_settime(int number, int flags, const itimerspec* setting, itimerspec* before);
ssize_t __real_read(int number, void* buffer, std::size_t size);
ssize_t __real_write(int number, const void* buffer, std::size_t size);

int __wrap_epoll_create1(int flags) {
    const OrvLab::Unwatched unwatched;
    if (Simulation::Current() == nullptr)
        return __real_epoll_create1(flags);
    return Descriptors::Of().Open(std::make_shared<OrvLab::EpollFile>());
}

int __wrap_epoll_ctl(int epoll, int operation, int number, epoll_event* event) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(epoll))
        return __real_epoll_ctl(epoll, operation, number, event);
    Simulation::Current()->Step("epoll_ctl");
    errno = OrvLab::Existing<OrvLab::EpollFile>(epoll, "epoll_ctl").Control(operation, number, event);
    return errno == 0 ? 0 : -1;
}

int __wrap_epoll_wait(int epoll, epoll_event* events, int room, int milliseconds) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(epoll))
        return __real_epoll_wait(epoll, events, room, milliseconds);
    return OrvLab::Wait(*Simulation::Current(), OrvLab::Existing<OrvLab::EpollFile>(epoll, "epoll_wait"), events,
                        static_cast<std::size_t>(room), milliseconds);
}

int __wrap_timerfd_create(int clock, int flags) {
    const OrvLab::Unwatched unwatched;
    if (Simulation::Current() == nullptr)
        return __real_timerfd_create(clock, flags);
    return Descriptors::Of().Open(std::make_shared<OrvLab::TimerFile>());
}

int __wrap_timerfd_settime(int number, int flags, const itimerspec* setting, itimerspec* before) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_timerfd_settime(number, flags, setting, before);
    Simulation* const simulation = Simulation::Current();
    simulation->Step("timerfd_settime");
    const OrvLab::Time first = OrvLab::ToTime(setting->it_value);
    OrvLab::Existing<OrvLab::TimerFile>(number, "timerfd_settime")
        .Set(first == 0 ? OrvLab::NEVER : simulation->Now() + first, OrvLab::ToTime(setting->it_interval));
    return 0;
}

ssize_t __wrap_read(int number, void* buffer, std::size_t size) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_read(number, buffer, size);
    Simulation::Current()->Step("read");
    return OrvLab::Existing<OrvLab::OpenFile>(number, "read").Receive(buffer, size);
}

ssize_t __wrap_write(int number, const void* buffer, std::size_t size) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_write(number, buffer, size);
    Simulation::Current()->Step("write");
    return OrvLab::Existing<OrvLab::OpenFile>(number, "write").Send(buffer, size);
}
// NOLINTEND(bugprone-reserved-identifier)
}
