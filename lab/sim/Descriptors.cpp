// SPDX-License-Identifier: Apache-2.0
#include "sim/Descriptors.h"

#include "sim/Simulation.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <string>

namespace OrvLab {

long OpenFile::Send(const void* /*buffer*/, std::size_t /*size*/) {
    errno = EBADF;
    return -1;
}

Descriptors& Descriptors::Of() {
    static Descriptors descriptors;
    return descriptors;
}

// The lowest free number, as the system gives it: one that is closed is soon another's.
int Descriptors::Open(std::shared_ptr<OpenFile> file) {
    int number = FIRST;
    while (files.count(number) != 0)
        ++number;
    files.emplace(number, std::move(file));
    return number;
}

int Descriptors::Duplicate(int number) {
    const auto found = files.find(number);
    return found == files.end() ? -1 : Open(found->second);
}

bool Descriptors::Close(int number) {
    return files.erase(number) != 0;
}

OpenFile* Descriptors::Find(int number) const {
    const auto found = files.find(number);
    return found == files.end() ? nullptr : found->second.get();
}

namespace {

class EventCounter final : public OpenFile {
public:
    short Ready() const override { return count != 0 ? POLLIN | POLLOUT : POLLOUT; }
    long Receive(void* buffer, std::size_t size) override {
        if (count == 0 || size < sizeof count) {
            errno = EAGAIN;
            return -1;
        }
        std::memcpy(buffer, &count, sizeof count);
        count = 0;
        Races::Acquire(this);
        return sizeof count;
    }
    long Send(const void* buffer, std::size_t size) override {
        std::uint64_t more = 0;
        std::memcpy(&more, buffer, std::min(size, sizeof more));
        Races::Release(this);
        count += more;
        return static_cast<long>(size);
    }

private:
    std::uint64_t count = 0;
};

OpenFile& Existing(int number, const char* call) {
    OpenFile* file = Descriptors::Of().Find(number);
    if (file == nullptr)
        Simulation::Current()->Fail(std::string(call) + " of a descriptor that is not open");
    return *file;
}

short ReadyNow(const pollfd& one) {
    if (one.fd < 0)
        return 0;
    const OpenFile* file = Descriptors::Of().Find(one.fd);
    constexpr short ALWAYS = POLLERR | POLLHUP;
    return file == nullptr ? POLLNVAL : static_cast<short>(file->Ready() & (one.events | ALWAYS));
}

int CountReady(pollfd* all, nfds_t count) {
    int ready = 0;
    for (nfds_t index = 0; index < count; ++index) {
        all[index].revents = ReadyNow(all[index]);
        ready += all[index].revents != 0 ? 1 : 0;
    }
    return ready;
}

int Poll(Simulation& simulation, pollfd* all, nfds_t count, int milliseconds) {
    simulation.Step("poll");
    if (milliseconds != 0 && simulation.Self().locks != 0)
        simulation.Fail("waits in poll and holds a lock");
    const bool interrupted = simulation.HasSpuriousWakeUps() && simulation.OneInSchedule(30);
    if (milliseconds != 0 && !interrupted) {
        const Time deadline = milliseconds < 0 ? NEVER : simulation.Now() + milliseconds * MILLISECOND;
        simulation.Wait(
            "poll", [&] { return std::any_of(all, all + count, [](const pollfd& one) { return ReadyNow(one) != 0; }); },
            deadline);
    }
    if (interrupted) {
        errno = EINTR;
        return -1;
    }
    return CountReady(all, count);
}

int Control(Simulation& simulation, int number, int command) {
    Existing(number, "fcntl");
    if (command != F_DUPFD_CLOEXEC && command != F_DUPFD)
        return 0;
    simulation.Step("dup");
    return Descriptors::Of().Duplicate(number);
}

} // namespace

} // namespace OrvLab

using OrvLab::Descriptors;
using OrvLab::Simulation;

extern "C" {

// The linker has each reference to NAME end at __wrap_NAME.
// NOLINTBEGIN(bugprone-reserved-identifier)
int __real_poll(pollfd* all, nfds_t count, int milliseconds);
int __real_close(int number);
int __real_eventfd(unsigned value, int flags);
int __real_eventfd_write(int number, eventfd_t value);
int __real_eventfd_read(int number, eventfd_t* value);
int __real_ioctl(int number, unsigned long request, void* argument);
int __real_fcntl64(int number, int command, long argument);
int __real_shutdown(int number, int how);
ssize_t __real_recv(int number, void* buffer, std::size_t size, int flags);

int __wrap_poll(pollfd* all, nfds_t count, int milliseconds) {
    const OrvLab::Unwatched unwatched;
    Simulation* simulation = Simulation::Current();
    return simulation != nullptr ? OrvLab::Poll(*simulation, all, count, milliseconds)
                                 : __real_poll(all, count, milliseconds);
}

int __wrap_close(int number) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_close(number);
    Simulation* simulation = Simulation::Current();
    simulation->Step("close");
    if (!Descriptors::Of().Close(number))
        simulation->Fail("closes a descriptor twice");
    return 0;
}

int __wrap_eventfd(unsigned value, int flags) {
    const OrvLab::Unwatched unwatched;
    if (Simulation::Current() == nullptr)
        return __real_eventfd(value, flags);
    return Descriptors::Of().Open(std::make_shared<OrvLab::EventCounter>());
}

int __wrap_eventfd_write(int number, eventfd_t value) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_eventfd_write(number, value);
    Simulation::Current()->Step("wake");
    OrvLab::Existing(number, "eventfd_write").Send(&value, sizeof value);
    return 0;
}

int __wrap_eventfd_read(int number, eventfd_t* value) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_eventfd_read(number, value);
    Simulation::Current()->Step("clear wake-ups");
    return OrvLab::Existing(number, "eventfd_read").Receive(value, sizeof *value) < 0 ? -1 : 0;
}

int __wrap_ioctl(int number, unsigned long request, void* argument) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return number < 0 && Simulation::Current() != nullptr ? -1 : __real_ioctl(number, request, argument);
    if (request == FIONREAD)
        *static_cast<int*>(argument) = static_cast<int>(OrvLab::Existing(number, "ioctl").Waiting());
    return 0;
}

int __wrap_fcntl64(int number, int command, ...) {
    const OrvLab::Unwatched unwatched;
    va_list arguments;
    va_start(arguments, command);
    const long argument = va_arg(arguments, long);
    va_end(arguments);
    if (!Descriptors::IsSimulated(number))
        return __real_fcntl64(number, command, argument);
    return OrvLab::Control(*Simulation::Current(), number, command);
}

int __wrap_shutdown(int number, int how) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_shutdown(number, how);
    Simulation::Current()->Step("shutdown");
    OrvLab::Existing(number, "shutdown").ShutDownWriting();
    return 0;
}

ssize_t __wrap_recv(int number, void* buffer, std::size_t size, int flags) {
    const OrvLab::Unwatched unwatched;
    if (!Descriptors::IsSimulated(number))
        return __real_recv(number, buffer, size, flags);
    Simulation::Current()->Step("recv");
    return OrvLab::Existing(number, "recv").Receive(buffer, size);
}
// NOLINTEND(bugprone-reserved-identifier)
}
