// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <OrvNetlink/Messages.h>

#include <OrvStackSdk/OrvEnums.h>

#include <cstddef>
#include <string>
#include <vector>

namespace GatewayApp {

/// What the kernel says about the two WAN interfaces, and which events follow from it: one for each change, none for a
/// repetition. An interface has an address when it has a global IPv4 address (169.254.x.y does not count). No input and
/// output of its own.
class WanInterfaces {
public:
    using Events = std::vector<OrvStackSdk::OrvEvent>;
    enum class Path : int { ETHERNET, CELLULAR };

    WanInterfaces(const std::string& ethernet, const std::string& cellular);

    /// @name One notification
    /// @{
    Events LinkSeen(const OrvNetlink::Link& link);
    Events LinkGone(const OrvNetlink::Link& link);
    Events AddressSeen(const OrvNetlink::Address& address);
    Events AddressGone(const OrvNetlink::Address& address);
    /// @}

    /// The whole state anew: at the start, and when notifications were lost.
    Events Replace(const std::vector<OrvNetlink::Link>& links, const std::vector<OrvNetlink::Address>& addresses);

    /// The present state as four events, what is down included.
    Events State() const;

    /// The kernel knows the interface.
    bool Exists(Path path) const { return Of(path).index != 0; }
    bool HasAddress(Path path) const { return !Of(path).addresses.empty(); }
    bool Running(Path path) const { return Of(path).running; }
    /// Link and address.
    bool Usable(Path path) const { return Of(path).running && HasAddress(path); }

    /// The interface that has the address; empty when none of the two has.
    std::string OwnerOf(const std::string& address) const;

private:
    struct Interface {
        std::string name;
        OrvStackSdk::OrvEvent connected, disconnected, gained, lost;
        unsigned index = 0; // 0: the kernel does not know it
        bool running = false;
        std::vector<OrvNetlink::Address> addresses;
    };

    const Interface& Of(Path path) const { return interfaces[static_cast<std::size_t>(path)]; }
    Interface* ByIndex(unsigned index);
    static void SetRunning(Interface& interface, bool running, Events& events);
    static void SetAddresses(Interface& interface, std::vector<OrvNetlink::Address> addresses, Events& events);

    Interface interfaces[2];
};

} // namespace GatewayApp
