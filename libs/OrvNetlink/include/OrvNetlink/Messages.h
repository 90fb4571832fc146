// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvNetlink/IpAddress.h"

#include <linux/netlink.h>

#include <sys/socket.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace OrvNetlink {

/// A network interface.
struct Link {
    unsigned index = 0;
    std::string name;
    /// The interface is switched on and has a carrier: it can carry packets.
    bool running = false;
    /// A link without addressing of its own (a modem's raw IP, PPP): it needs no gateway.
    bool pointToPoint = false;
    /// What the kernel has counted on it since it was made.
    std::uint64_t receivedBytes = 0;
    std::uint64_t sentBytes = 0;
};

/// An address of an interface.
struct Address {
    unsigned link = 0;
    IpAddress address;
    unsigned prefixLength = 0;
    /// IPv4: another address of the same network came before it.
    bool secondary = false;
    /// Usable beyond its own link: not loopback, not link-local (169.254.x.y, fe80::).
    bool global = false;

    /// @name IPv6 only
    /// @{
    bool tentative = false;  ///< nobody knows yet whether another host has it; no connection can use it
    bool duplicate = false;  ///< another host has it
    bool deprecated = false; ///< its preferred lifetime is over: for new connections only when there is no other
    bool temporary = false;  ///< a privacy address, replaced from time to time
    /// @}

    /// A connection can have it as its own address.
    bool Usable() const { return global && !tentative && !duplicate; }
    bool operator==(const Address& other) const {
        return link == other.link && address == other.address && prefixLength == other.prefixLength;
    }
};

/// A unicast route with at most one next hop, or one that says that there is no way (link 0, unreachable).
struct Route {
    std::uint32_t table = 0;
    /// Who installed it, one of the kernel's protocol numbers (RTPROT_RA: a router's advertisement).
    std::uint8_t protocol = 0;
    unsigned link = 0;
    IpAddress destination;
    unsigned prefixLength = 0;
    IpAddress gateway;
    IpAddress source;
    /// The smaller is better. IPv6 knows no 0: the kernel makes 1024 of it.
    std::uint32_t metric = 0;
    std::uint8_t family = AF_INET;
    /// How long it has still to live. Not set: until somebody removes it. Not positive: it is over, the kernel uses it
    /// no more, and will remove it within half a minute.
    std::optional<std::chrono::milliseconds> lifetime{};
    /// What the router says of itself among several: -1 low, 0 medium, 1 high.
    int preference = 0;

    bool IsDefault() const { return prefixLength == 0; }
    bool IsOver() const { return lifetime && lifetime->count() <= 0; }
    bool IsUnreachable() const { return link == 0; }
    /// Whether it is the same route; its lifetime and preference do not matter.
    bool operator==(const Route& other) const {
        return table == other.table && protocol == other.protocol && link == other.link &&
               destination == other.destination && prefixLength == other.prefixLength && gateway == other.gateway &&
               source == other.source && metric == other.metric && family == other.family;
    }
};

/// A rule of the form "oif INTERFACE lookup TABLE" or "from NETWORK lookup TABLE".
struct Rule {
    std::uint32_t priority = 0;
    std::uint32_t table = 0;
    std::uint8_t protocol = 0;
    /// Empty in a rule for a network.
    std::string interface;
    /// None in a rule for an interface.
    IpAddress source;
    /// Of the source; 0 in a rule for an interface.
    unsigned prefixLength = 0;
    std::uint8_t family = AF_INET;

    bool operator==(const Rule& other) const {
        return priority == other.priority && table == other.table && protocol == other.protocol &&
               interface == other.interface && source == other.source && prefixLength == other.prefixLength &&
               family == other.family;
    }
};

/// @name Reading a message
/// What a message of the matching kind (new or gone) says; nothing for another kind of message and for what the
/// structures above cannot express (a third family, a multipath or blackhole route, a rule of another form).
/// @{
std::optional<Link> ReadLink(const nlmsghdr& message);
std::optional<Address> ReadAddress(const nlmsghdr& message);
std::optional<Route> ReadRoute(const nlmsghdr& message);
std::optional<Rule> ReadRule(const nlmsghdr& message);
/// @}

/// @name Writing a message
/// Into `buffer`, which has room for MESSAGE_ROOM bytes and is aligned as an nlmsghdr is. `type` is the kernel's (new
/// or delete), `flags` go beside NLM_F_REQUEST and NLM_F_ACK. The result is inside the buffer.
/// @{
inline constexpr std::size_t MESSAGE_ROOM = 512;
nlmsghdr& WriteRoute(void* buffer, std::uint16_t type, std::uint16_t flags, const Route& route);
nlmsghdr& WriteRule(void* buffer, std::uint16_t type, std::uint16_t flags, const Rule& rule);
/// @}

} // namespace OrvNetlink
