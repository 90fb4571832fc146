// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EventLoop.h"

#include <chrono>
#include <memory>
#include <string>

namespace GatewayApp {

/// Talks to the service manager that started the process, by its notification socket (NOTIFY_SOCKET). Without one, all
/// of it does nothing. Never blocks.
class ServiceManager {
public:
    /// Reads NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID.
    ServiceManager();

    /// Sends assignments such as "READY=1", one a line.
    void Notify(const std::string& message);

    /// How often "WATCHDOG=1" has to be sent: half of what the manager allows. Zero: it is not watching.
    std::chrono::milliseconds WatchdogPeriod() const { return watchdogPeriod; }

private:
    std::string path;
    std::unique_ptr<Descriptor> socket; // made with the first word, or with a later one where there was none to be had
    std::chrono::milliseconds watchdogPeriod{0};
};

} // namespace GatewayApp
