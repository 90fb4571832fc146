// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>

#pragma GCC visibility push(default)
namespace CommonUtils::Networking {

/// Commands to the connection manager (ConnMan), which owns the gateway's routes and name servers.
/// No call waits for the connection manager or for its bus. Questions are answered from the last known state; orders
/// are accepted and carried out in the background. If the settings name another program as the gateway's controller,
/// orders are dropped and return true. Callable on any thread; nothing is thrown.
class ConnmanCommands {
public:
    /// The one instance of the process, made on first use.
    static ConnmanCommands& GetInstance();

    /// The interface of the first service in the connection manager's order. Empty if that service is not connected, if
    /// there is no service, or while the connection manager is away.
    std::string GetTopPriorityInterface();

    /// Asks that the service of `interfaceName` comes first, so that it carries the default route. Returns at once.
    /// Of several requests that have not been carried out yet only the latest counts.
    /// @return false when the request obviously cannot be carried out now (no connected service on that interface).
    ///         It is then kept and carried out when possible, unless the name is empty. True when it was accepted or
    ///         is already fulfilled. True does not promise success: GetTopPriorityInterface shows when the order has
    ///         changed.
    bool SetTopPriorityInterface(const std::string& interfaceName);

    /// Sets the name servers of the interface's service. Empty strings are left out; two empty strings restore the
    /// servers that the network offers. Returns at once. Of several requests for one interface the latest counts.
    /// @return false when the request obviously cannot be carried out now. It is then kept and carried out when
    ///         possible, unless the name is empty or a server is no address. True otherwise.
    bool SetDnsConfiguration(const std::string& interfaceName, const std::string& first, const std::string& second);

    ConnmanCommands(const ConnmanCommands&) = delete;
    ConnmanCommands& operator=(const ConnmanCommands&) = delete;

    /// The working part, defined by the implementation.
    class Worker;

private:
    ConnmanCommands();
    ~ConnmanCommands();

    std::unique_ptr<Worker> worker;
};

} // namespace CommonUtils::Networking
#pragma GCC visibility pop
