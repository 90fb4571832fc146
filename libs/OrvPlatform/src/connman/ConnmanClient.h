// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "connman/ConnmanRunner.h"

#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace OrvPlatform {

/// The real connection manager, as callers see it. A thread of its own, started by the first call, owns the bus
/// connection and does the work; callers only touch the picture and the orders, under one mutex that is never held
/// across anything slow. Every operation may be called from any thread and returns at once.
class ConnmanClient {
public:
    explicit ConnmanClient(const std::string& address, const ConnmanLimits& timeLimits = {},
                           ConnmanRole ownRole = ConnmanRole::CONTROLLER);
    ~ConnmanClient();
    ConnmanClient(const ConnmanClient&) = delete;
    ConnmanClient& operator=(const ConnmanClient&) = delete;

    std::string TopPriorityInterface();
    bool SetTopPriorityInterface(const std::string& interfaceName);

    /// @param servers as the caller gave them, empty strings left out
    bool SetDnsConfiguration(const std::string& interfaceName, const std::vector<std::string>& servers);

    /// The process ends: the thread is gone afterwards; later calls do nothing.
    void Stop() noexcept;

    /// Called around fork(), so that a child that goes on without exec does not inherit a locked lock or a dead thread.
    /// Where the thread does not come out of libdbus in time, or there is no memory for what a child needs, the child's
    /// calls do nothing.
    void BeforeFork() noexcept ORV_NO_LOCK_ANALYSIS;
    void AfterForkInParent() noexcept ORV_NO_LOCK_ANALYSIS;
    void AfterForkInChild() noexcept ORV_NO_LOCK_ANALYSIS;

private:
    bool IsRunning() ORV_REQUIRES(shared->mutex);
    bool CanExecuteNow(const std::string& interfaceName, bool mustBeConnected) const ORV_REQUIRES(shared->mutex);

    const std::string busAddress;
    const ConnmanLimits limits;
    const ConnmanRole role;
    std::shared_ptr<ConnmanShared> shared; ///< outlives this object where the thread does not end in time
    std::unique_ptr<std::thread> thread;
    bool hasLibrary = false; ///< BeforeFork holds LibdbusMutex

    std::shared_ptr<ConnmanShared> childsShared; ///< from BeforeFork until after the fork; null without memory

    // What a forked child got from its parent and must not touch.
    std::shared_ptr<ConnmanShared> parentsShared;
    std::thread* parentsThread = nullptr;
};

} // namespace OrvPlatform
