// SPDX-License-Identifier: Apache-2.0
#include "base/Waker.h"

#include <sys/eventfd.h>

namespace OrvPlatform {

bool Waker::Open() noexcept {
    if (!IsOpen())
        descriptor.Reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    return IsOpen();
}

void Waker::Wake() const noexcept {
    if (IsOpen())
        ::eventfd_write(descriptor.Number(), 1); // full means that it is readable already
}

void Waker::Clear() const noexcept {
    eventfd_t count = 0;
    if (IsOpen())
        ::eventfd_read(descriptor.Number(), &count);
}

} // namespace OrvPlatform
