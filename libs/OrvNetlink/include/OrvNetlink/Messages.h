// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvNetlink/Ipv4.h"

#include <linux/netlink.h>

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

/// An IPv4 address of an interface.
struct Address {
    unsigned link = 0;
    Ipv4 address;
    unsigned prefixLength = 0;
    /// Another address of the same network came before it.
    bool secondary = false;
    /// Usable beyond its own link: not 127.0.0.1, not 169.254.x.y.
    bool global = false;

    bool operator==(const Address& other) const {
        return link == other.link && address == other.address && prefixLength == other.prefixLength;
    }
};

/// An IPv4 unicast route with at most one next hop.
struct Route {
    std::uint32_t table = 0;
    /// Who installed it, one of the kernel's protocol numbers.
    std::uint8_t protocol = 0;
    unsigned link = 0;
    Ipv4 destination;
    unsigned prefixLength = 0;
    Ipv4 gateway;
    Ipv4 source;
    std::uint32_t metric = 0;

    bool IsDefault() const { return prefixLength == 0; }
    bool operator==(const Route& other) const {
        return table == other.table && protocol == other.protocol && link == other.link &&
               destination == other.destination && prefixLength == other.prefixLength && gateway == other.gateway &&
               source == other.source && metric == other.metric;
    }
};

/// An IPv4 rule of the form "oif INTERFACE lookup TABLE" or "from ADDRESS lookup TABLE".
struct Rule {
    std::uint32_t priority = 0;
    std::uint32_t table = 0;
    std::uint8_t protocol = 0;
    /// Empty in a rule for an address.
    std::string interface;
    /// 0.0.0.0 in a rule for an interface.
    Ipv4 source;

    bool operator==(const Rule& other) const {
        return priority == other.priority && table == other.table && protocol == other.protocol &&
               interface == other.interface && source == other.source;
    }
};

/// @name Reading a message
/// What a message of the matching kind (new or gone) says; nothing for another kind of message and for what the
/// structures above cannot express (another family, a multipath or blackhole route, a rule of another form).
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
