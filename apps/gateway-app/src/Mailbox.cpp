// SPDX-License-Identifier: Apache-2.0
#include "Mailbox.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <system_error>
#include <utility>

namespace GatewayApp {

Mailbox::Mailbox() : wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake.Number() < 0)
        throw std::system_error(errno, std::generic_category(), "make a mailbox");
}

void Mailbox::Post(Work work) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        posted.push_back(std::move(work));
    }
    const std::uint64_t one = 1;
    // It fails only when the counter is full, and then the loop is woken anyway.
    static_cast<void>(!write(wake.Number(), &one, sizeof(one)));
}

void Mailbox::DoAll() {
    std::uint64_t count = 0;
    static_cast<void>(!read(wake.Number(), &count, sizeof(count)));
    std::vector<Work> work;
    {
        const std::lock_guard<std::mutex> lock(mutex);
        work.swap(posted);
    }
    for (const Work& item : work)
        item();
}

} // namespace GatewayApp
