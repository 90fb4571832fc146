// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "base/FileDescriptor.h"

namespace OrvPlatform {

/// Ends another thread's poll. Wake and Clear may be called from any thread; Open comes before that.
class Waker {
public:
    /// Asks for the descriptor, unless it is there already.
    /// @return false when there is none to be had
    bool Open() noexcept;

    /// To be polled for POLLIN; -1 before Open.
    int Descriptor() const noexcept { return descriptor.Number(); }
    bool IsOpen() const noexcept { return descriptor.IsOpen(); }

    /// The descriptor is readable from now until the next Clear. Without one nothing happens.
    void Wake() const noexcept;
    void Clear() const noexcept;

private:
    FileDescriptor descriptor;
};

} // namespace OrvPlatform
