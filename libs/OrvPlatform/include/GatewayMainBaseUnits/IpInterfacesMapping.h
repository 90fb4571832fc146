// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#pragma GCC visibility push(default)
namespace GatewayMainBaseUnits {

/// Which network interface plays which role on this gateway, from the gateway's configuration.
class IpInterfacesMapping {
public:
    /// The one instance of the process, made on first use. Callable from any thread; nothing is thrown.
    static IpInterfacesMapping& GetInstance();

    /// @param role "Ethernet" or "Cellular"
    /// @return the interface's name as the kernel and the connection manager know it; empty for another role.
    ///         Callable from any thread, never blocks.
    std::string GetInterfaceName(const std::string& role) const;

private:
    IpInterfacesMapping() = default;
};

} // namespace GatewayMainBaseUnits
#pragma GCC visibility pop
