// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EventLoop.h"

#include <memory>
#include <stdexcept>
#include <string>

namespace GatewayApp {

/// Another gateway-app has the lock, or the lock cannot be had. The text says which and what to do.
struct AnotherInstance : std::runtime_error {
    using std::runtime_error::runtime_error;
};

/// Keeps a second application of this kind off the gateway: two of them move the WAN route against each other. The lock
/// is the kernel's and ends with the process, however it ends.
class InstanceLock {
public:
    /// @param path a file, made when it is missing, with its folder; only its owner may open it, or anybody could keep
    ///        the application from starting. Empty: no lock.
    /// @throws AnotherInstance when it is taken
    explicit InstanceLock(const std::string& path);

    /// Why there is no lock although one was wanted; empty when there is one. A folder that cannot be made is none of
    /// the application's business: it may be run by hand, by somebody without rights in /run. Nor is it a second
    /// application when the kernel has no lock to give.
    const std::string& Missing() const { return missing; }

private:
    void Take(const std::string& path);

    std::unique_ptr<Descriptor> file;
    std::string missing;
};

} // namespace GatewayApp
