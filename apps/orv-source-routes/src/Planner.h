// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <OrvNetlink/Messages.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace OrvSourceRoutes {

/// Marks what this program made: its routes and rules carry this protocol number, and it removes only those.
/// No number of the kernel's or of a known routing program.
inline constexpr std::uint8_t OWN_PROTOCOL = 111;

/// The priority of the rules for addresses: they are asked when neither the main table nor the default table has a
/// route.
inline constexpr std::uint32_t BEHIND_MAIN = 32768;

/// The metric of its IPv6 routes. The kernel knows none without, and takes 1024 for those of advertised routers: in the
/// main table this program's has to come first.
inline constexpr std::uint32_t IPV6_METRIC = 100;

/// Which table belongs to which interface. The rule that leads to it has the same number as priority.
struct InterfaceTable {
    std::string interface;
    std::uint32_t table = 0;
};

/// What the connection manager tells; nothing while it does not.
struct ConnmanView {
    std::string defaultInterface{};
    std::map<std::string, std::vector<std::string>> nameServers{}; ///< of each interface with a connected service

    bool operator==(const ConnmanView& other) const {
        return defaultInterface == other.defaultInterface && nameServers == other.nameServers;
    }
};

/// What the kernel has at one moment.
struct Snapshot {
    std::vector<OrvNetlink::Link> links;
    std::vector<OrvNetlink::Address> addresses;
    std::vector<OrvNetlink::Route> routes; // of all tables
    std::vector<OrvNetlink::Rule> rules;
    ConnmanView connman{};
};

/// The interface of the best IPv4 default route; empty when there is none.
std::string Ipv4DefaultInterface(const Snapshot& snapshot);

/// What the kernel should have of this program's entries.
struct Plan {
    std::vector<OrvNetlink::Route> routes;
    std::vector<OrvNetlink::Rule> rules;
    /// By interface ("eth0", "eth0, IPv6"): one line for the log that says what a bound connection finds, and why.
    std::map<std::string, std::string> reasons;
};

/// Decides from what the kernel shows. No input and output of its own.
///
/// The router of an interface is taken from the main table, in this order:
/// 1. its default route over the interface (the connection manager gives one to the default service);
/// 2. its only host route to a neighbour (it routes the router so), or the one of several that other routes go via;
/// 3. the only router of other routes, of host routes first (it routes the name servers so).
/// What 1. and 2. say is remembered as long as the interface keeps its address, and counts for more than 3.; so does an
/// entry of this program from before a crash, when its source is the interface's address.
/// A point-to-point link needs no router.
///
/// That is IPv4. In IPv6 the kernel keeps a default route for each advertised router itself, see Ipv6Plan.h. Which of
/// these is the default is for the connection manager to say, and for the IPv4 default route where there is none.
class Planner {
public:
    explicit Planner(std::vector<InterfaceTable> interfaceTables) : tables(std::move(interfaceTables)) {}

    Plan Decide(const Snapshot& snapshot);

    /// When the next lifetime of an interface's IPv6 router is over, an hour at the most; nothing when none will be.
    std::optional<std::chrono::milliseconds> NextExpiry(const Snapshot& snapshot) const;

private:
    struct Router {
        OrvNetlink::Address address;
        OrvNetlink::IpAddress gateway;
        /// It may be the router of some other network as well.
        bool guessed = false;
    };

    void DecideIpv6(const Snapshot& snapshot, Plan& plan);
    void DecideFor(const InterfaceTable& entry, const Snapshot& snapshot, Plan& plan);
    OrvNetlink::IpAddress FindGateway(const InterfaceTable& entry, const OrvNetlink::Address& address,
                                      const Snapshot& snapshot);

    const std::vector<InterfaceTable> tables;
    std::map<std::string, Router> remembered;
    std::set<std::string> withIpv6; // those that have had it: of others there is nothing to say
};

/// What has to be done so that the kernel has the plan's entries and no other of this program's.
struct Changes {
    struct Addition {
        OrvNetlink::Route route;
        /// An own entry with the same destination stands in the table and is to be replaced in one step.
        bool replaces = false;
    };
    std::vector<Addition> routesToAdd;
    std::vector<OrvNetlink::Rule> rulesToAdd;
    std::vector<OrvNetlink::Rule> rulesToRemove;
    std::vector<OrvNetlink::Route> routesToRemove;
};

Changes Difference(const Snapshot& snapshot, const Plan& plan);

} // namespace OrvSourceRoutes
