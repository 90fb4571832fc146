// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace OrvLab {

/// What a process has, beside its memory.
struct Holdings {
    long descriptors = 0;
    long threads = 0;
    long registrations = 0; ///< what its epoll instances and inotify instances watch
};

/// The descriptors of this process.
class OpenDescriptors {
public:
    /// Those that are open now were inherited, and are never counted.
    static void AreNotOurs();
    static long Count();
    static Holdings Held();
    /// The fewest of each within a short time: a connection may just be tried.
    static Holdings Fewest();
    /// Whether a program that is started now would inherit a connection to that port.
    static bool IsConnectionInherited(std::uint16_t port);
};

} // namespace OrvLab
