// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace OrvLab {

/// The descriptors of this process.
class OpenDescriptors {
public:
    /// Those that are open now were inherited, and are never counted.
    static void AreNotOurs();
    static long Count();
    /// The fewest within a short time: a connection may just be tried.
    static long Fewest();
    /// Whether a program that is started now would inherit a connection to that port.
    static bool IsConnectionInherited(std::uint16_t port);
};

} // namespace OrvLab
