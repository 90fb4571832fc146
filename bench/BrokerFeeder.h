// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Sockets.h"

#include <cstdint>
#include <sys/types.h>

namespace OrvBench {

/// A process of its own that plays the broker for one client and sends it messages on demand, so that nothing of the
/// sending is counted in this process.
class BrokerFeeder {
public:
    BrokerFeeder();
    ~BrokerFeeder();
    BrokerFeeder(const BrokerFeeder&) = delete;
    BrokerFeeder& operator=(const BrokerFeeder&) = delete;

    std::uint16_t Port() const { return port; }
    /// Has that many messages sent to the client that is connected.
    void Send(std::uint32_t messages) const;

private:
    std::uint16_t port = 0;
    pid_t process = 0;
    OrvTest::Descriptor orders;
};

} // namespace OrvBench
