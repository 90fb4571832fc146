// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "CommonUtils/Networking/ConnmanCommands.h"

#include <string>
#include <vector>

namespace CommonUtils::Networking {

/// What stands behind ConnmanCommands. Every operation may be called from any thread and returns at once.
class ConnmanCommands::Worker {
public:
    Worker() = default;
    virtual ~Worker() = default;
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    virtual std::string TopPriorityInterface() = 0;
    virtual bool SetTopPriorityInterface(const std::string& interfaceName) = 0;

    /// @param servers as the caller gave them, empty strings left out
    virtual bool SetDnsConfiguration(const std::string& interfaceName, const std::vector<std::string>& servers) = 0;

    /// The process ends: threads are gone afterwards; later calls do nothing.
    virtual void Stop() noexcept {}

    /// Called around fork(), so that a child that goes on without exec does not inherit a locked lock or a dead thread.
    virtual void BeforeFork() noexcept {}
    virtual void AfterForkInParent() noexcept {}
    virtual void AfterForkInChild() noexcept {}
};

} // namespace CommonUtils::Networking
