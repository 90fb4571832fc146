// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "ConnmanRunner.h"
#include "ConnmanWorker.h"

#include <memory>
#include <mutex>
#include <thread>

namespace OrvPlatform {

/// The real connection manager, as callers see it. A thread of its own, started by the first call, owns the bus
/// connection and does the work; callers only touch the picture and the orders, under one mutex that is never held
/// across anything slow.
class ConnmanLink final : public CommonUtils::Networking::ConnmanCommands::Worker {
public:
    explicit ConnmanLink(const std::string& address, const ConnmanLimits& timeLimits = {});
    ~ConnmanLink() override;

    std::string TopPriorityInterface() override;
    bool SetTopPriorityInterface(const std::string& interfaceName) override;
    bool SetDnsConfiguration(const std::string& interfaceName, const std::vector<std::string>& servers) override;

    void Stop() noexcept override;
    void BeforeFork() noexcept override;
    void AfterForkInParent() noexcept override;
    void AfterForkInChild() noexcept override;

    /// Where the connection manager is found: the configured bus, else the one that the environment names, else the
    /// system's.
    static std::string BusAddress(const std::string& configured);

private:
    bool IsRunning();
    bool CanCarryOutNow(const std::string& interfaceName, bool mustBeConnected) const;

    const std::string busAddress;
    const ConnmanLimits limits;
    std::shared_ptr<ConnmanShared> shared; ///< outlives this object where the thread does not end in time
    std::unique_ptr<std::thread> thread;

    // What a forked child got from its parent and must not touch.
    std::shared_ptr<ConnmanShared> parentsShared;
    std::thread* parentsThread = nullptr;
};

} // namespace OrvPlatform
