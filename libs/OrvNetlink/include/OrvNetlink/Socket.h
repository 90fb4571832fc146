// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <linux/netlink.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <system_error>
#include <vector>

struct mnl_socket;

namespace OrvNetlink {

/// A netlink socket of the routing family. One thread.
class Socket {
public:
    using Receiver = std::function<void(const nlmsghdr& message)>;

    /// @param groups the kernel's RTMGRP_... flags of the notifications to receive; 0 for a socket of requests
    /// @throws std::system_error
    explicit Socket(unsigned groups = 0);

    /// Readable when notifications wait.
    int Descriptor() const;

    /// Hands over all notifications that wait and returns; never blocks.
    /// @return false when the kernel had to drop some: what they said has to be asked for with Dump
    /// @throws std::system_error
    [[nodiscard]] bool ReadNotifications(const Receiver& receiver);

    /// Asks for everything of one kind (RTM_GETLINK, ...) of the family and waits for the kernel's answer, which needs
    /// no network and comes at once. Only for a socket without groups.
    /// @return false when it has changed during each of five attempts: nothing is handed over then. Whoever listens to
    ///         notifications has one waiting and may ask again
    /// @throws std::system_error
    [[nodiscard]] bool Dump(std::uint16_t type, std::uint8_t family, const Receiver& receiver);

    /// Sends a request and waits for the kernel's verdict, which comes at once. Only for a socket without groups.
    /// @throws std::system_error when there is no verdict
    [[nodiscard]] std::error_code Request(nlmsghdr& message);

private:
    struct Close {
        void operator()(mnl_socket* socket) const;
    };
    bool DumpOnce(std::uint16_t type, std::uint8_t family, const Receiver& receiver);

    std::unique_ptr<mnl_socket, Close> socket;
    std::vector<char> buffer;
    std::uint32_t sequence = 0;
};

} // namespace OrvNetlink
