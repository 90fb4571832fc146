// SPDX-License-Identifier: Apache-2.0
// The service manager, and the clocks that are read by their C function.
#include "gateway/World.h"

#include <sys/socket.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

using OrvLab::Simulation;
using OrvLab::World;

namespace {

// 2026-11-22, when the simulated machine is started.
constexpr OrvLab::Time BOOTED = 1'795'305'600 * OrvLab::SECOND;

} // namespace

extern "C" {

// NOLINTBEGIN(bugprone-reserved-identifier)
char* __real_getenv(const char* name);
ssize_t __real_sendto(int number, const void* text, std::size_t size, int flags, const sockaddr* to, socklen_t length);
int __real_clock_gettime(clockid_t clock, timespec* now);

char* __wrap_getenv(const char* name) {
    const OrvLab::Unwatched unwatched;
    static char socket[] = "/lab/notify";
    static char period[] = "20000000";
    const World* const world = Simulation::Current() == nullptr ? nullptr : World::Present();
    if (world == nullptr || !world->onNotify)
        return __real_getenv(name);
    return std::strcmp(name, "NOTIFY_SOCKET") == 0   ? socket
           : std::strcmp(name, "WATCHDOG_USEC") == 0 ? period
                                                     : nullptr;
}

ssize_t __wrap_sendto(int number, const void* text, std::size_t size, int flags, const sockaddr* to, socklen_t length) {
    const OrvLab::Unwatched unwatched;
    if (!OrvLab::Descriptors::IsSimulated(number))
        return __real_sendto(number, text, size, flags, to, length);
    World::Of("sendto").onNotify(std::string(static_cast<const char*>(text), size));
    return static_cast<ssize_t>(size);
}

int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    const OrvLab::Unwatched unwatched;
    const Simulation* const simulation = Simulation::Current();
    if (simulation == nullptr)
        return __real_clock_gettime(clock, now);
    const OrvLab::Time time = simulation->Now() + (clock == CLOCK_REALTIME ? BOOTED : 0);
    now->tv_sec = time / OrvLab::SECOND;
    now->tv_nsec = time % OrvLab::SECOND;
    return 0;
}
// NOLINTEND(bugprone-reserved-identifier)
}
