// SPDX-License-Identifier: Apache-2.0
#include "ScriptedPoll.h"

#include "WaitUntil.h"

#include <dlfcn.h>
#include <poll.h>

namespace OrvTest {

std::atomic<unsigned> polls{0};
std::atomic<int> longSleepers{0};
std::atomic<bool> inputNeverPauses{false};

namespace {

std::atomic<bool> sleepsLong{false};
thread_local short heldEvents = 0;
thread_local const std::atomic<bool>* heldUntil = nullptr;

int Poll(pollfd* descriptors, nfds_t count, int limit) {
    // Not ppoll, whose checked form takes a 64-bit time for a 32-bit one on 32-bit processors.
    static const auto real = reinterpret_cast<int (*)(pollfd*, nfds_t, int)>(dlsym(RTLD_NEXT, "poll"));
    if (inputNeverPauses && count == 1 && descriptors->events == POLLIN) {
        descriptors->revents = POLLIN;
        return 1;
    }
    if (heldUntil && count == 1 && descriptors->events == heldEvents)
        WaitUntil([] { return heldUntil->load(); });
    if (count != 2)
        return real(descriptors, count, limit);
    ++polls;
    if (!sleepsLong || limit == 0 || limit > 1000)
        return real(descriptors, count, limit);
    ++longSleepers;
    const int ready = real(descriptors, count, -1);
    --longSleepers;
    return ready;
}

} // namespace

LongSleep::LongSleep() {
    sleepsLong = true;
}

LongSleep::~LongSleep() {
    sleepsLong = false;
}

void HoldPollsOfThisThread(short events, const std::atomic<bool>& until) {
    heldEvents = events;
    heldUntil = &until;
}

} // namespace OrvTest

extern "C" int poll(pollfd* descriptors, nfds_t count, int limit) {
    return OrvTest::Poll(descriptors, count, limit);
}
