// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <OrvNetlink/Messages.h>

#include <OrvStackSdk/OrvEnums.h>

#include <cstddef>
#include <string>
#include <vector>

namespace GatewayApp {

/// What the kernel says about the two WAN interfaces, and which events follow from it: one for each change, none for a
/// repetition. No input and output of its own.
///
/// An interface has an address when it can reach the outside with one family at least: it has a global IPv4 address
/// (169.254.x.y does not count), or an IPv6 address beyond its link, global or unique local, together with a default
/// route. Not counted are addresses that are tentative or that another host has; deprecated ones are. A change of
/// family or prefix is no event of its own.
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

    /// The interfaces, by index, that have an IPv6 default route.
    Events RoutersAre(std::vector<unsigned> links);

    /// The whole state anew: at the start, and when notifications were lost.
    /// @param withRouter as in RoutersAre
    Events Replace(const std::vector<OrvNetlink::Link>& links, const std::vector<OrvNetlink::Address>& addresses,
                   std::vector<unsigned> withRouter = {});

    /// The present state as four events, what is down included.
    Events State() const;

    /// The kernel knows the interface.
    bool Exists(Path path) const { return Of(path).index != 0; }
    bool HasAddress(Path path) const { return Of(path).ReachesOut(); }
    bool Running(Path path) const { return Of(path).running; }
    /// Link and address.
    bool Usable(Path path) const { return Of(path).running && HasAddress(path); }

    /// The link bears an interface's name and is not the one known under it.
    bool IsNew(const OrvNetlink::Link& link) const;

    /// The interface that has the address; empty when none of the two has.
    std::string OwnerOf(const std::string& address) const;

private:
    struct Interface {
        std::string name;
        OrvStackSdk::OrvEvent connected, disconnected, gained, lost;
        unsigned index = 0; // 0: the kernel does not know it
        bool running = false;
        std::vector<OrvNetlink::Address> addresses; // beyond the link
        bool router = false;                        // has an IPv6 default route

        bool ReachesOut() const;
    };

    const Interface& Of(Path path) const { return interfaces[static_cast<std::size_t>(path)]; }
    Interface* ByIndex(unsigned index);
    static void SetRunning(Interface& interface, bool running, Events& events);
    static void SetReach(Interface& interface, std::vector<OrvNetlink::Address> addresses, bool router, Events& events);
    bool HasRouter(unsigned index) const;

    Interface interfaces[2];
    std::vector<unsigned> routers;
};

} // namespace GatewayApp
