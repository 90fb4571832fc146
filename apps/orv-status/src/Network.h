// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Snapshot.h"

#include <OrvNetlink/Socket.h>

#include <memory>
#include <string>

namespace OrvStatus {

/// Follows the kernel's links, addresses and routes.
class Network {
public:
    Network(std::string ethernetInterface, std::string cellularInterface);

    /// Asks the kernel, which answers at once.
    NetworkView Read();

    /// Readable when something may have changed; -1 where the kernel does not tell.
    int Descriptor() const { return notifications ? notifications->Descriptor() : -1; }
    void TakeNotifications();

private:
    const std::string ethernet, cellular;
    std::unique_ptr<OrvNetlink::Socket> notifications;
};

} // namespace OrvStatus
