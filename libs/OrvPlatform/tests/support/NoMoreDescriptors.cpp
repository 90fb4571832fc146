// SPDX-License-Identifier: Apache-2.0
#include "NoMoreDescriptors.h"

#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace {

std::atomic<bool> none{false};

template <typename... Arguments>
int Make(long call, Arguments... arguments) {
    if (!none)
        return static_cast<int>(syscall(call, arguments...));
    errno = EMFILE;
    return -1;
}

} // namespace

// They replace the C library's for the whole process.
extern "C" __attribute__((visibility("default"))) int socket(int domain, int type, int protocol) noexcept {
    return Make(SYS_socket, domain, type, protocol);
}

extern "C" __attribute__((visibility("default"))) int eventfd(unsigned count, int flags) noexcept {
    return Make(SYS_eventfd2, count, flags);
}

namespace OrvTest {

NoMoreDescriptors::NoMoreDescriptors() {
    none = true;
}

NoMoreDescriptors::~NoMoreDescriptors() {
    none = false;
}

} // namespace OrvTest
