// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EventLoop.h"

#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace GatewayApp {

/// Brings work from other threads to the loop's thread. Whoever posts holds a share, so that it may outlive the loop.
class Mailbox {
public:
    using Work = std::function<void()>;

    /// @throws std::system_error
    Mailbox();

    /// Leaves work for the loop's thread. Any thread; does not block. Never run when the loop is gone.
    void Post(Work work);

    int ReadyDescriptor() const { return wake.Number(); }
    /// Does what was posted, on the calling thread.
    void DoAll();

private:
    Descriptor wake;
    std::mutex mutex;
    std::vector<Work> posted; // guarded by mutex
};

} // namespace GatewayApp
