// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Planner.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace OrvSourceRoutes {

/// Ends the name of an interface whose line in the log is about IPv6.
extern const char* const IPV6_SUFFIX;

/// What an interface has of IPv6, as far as the kernel and the routers' advertisements say.
struct Ipv6State {
    const OrvNetlink::Link* link = nullptr; ///< null: it does not exist
    /// The networks of its own addresses, and those that are on its link; without link-local ones.
    std::vector<OrvNetlink::Route> ownNetworks;
    std::vector<OrvNetlink::Route> onLink; ///< the main table's, link-local ones too
    OrvNetlink::IpAddress gateway;         ///< none on a point-to-point link
    bool hasRouter = false;                ///< there is a way out

    bool HasWayOut() const { return link != nullptr && link->running && hasRouter && !ownNetworks.empty(); }
};

/// The router is that of the main table's best default route over the interface: the smallest metric, then the higher
/// preference. Of equals the one stays that this program has used. A route whose lifetime is over does not count.
Ipv6State LookAtIpv6(const InterfaceTable& entry, const Snapshot& snapshot);

/// The table's routes, and the rules that lead to it.
void AddIpv6Table(const InterfaceTable& entry, const Ipv6State& state, Plan& plan);

/// "bound connections go via ...", or why not.
std::string Ipv6Reason(const InterfaceTable& entry, const Ipv6State& state);

/// The main table's own default route: over the interface that has the default, or the word that there is no way when
/// that one has no IPv6 and another has. Nothing while nobody has IPv6, or nobody the default.
/// @param states of the interfaces, in the order of the tables
void AddIpv6Default(const std::vector<InterfaceTable>& tables, const std::vector<Ipv6State>& states,
                    const std::string& defaultInterface, Plan& plan);

/// The main table's routes to the name servers of an interface that has not the default: each provider answers its own
/// customers only, and without them the questions would go over the default. None to a server that is on a link, or
/// that the default interface has, too.
void AddIpv6NameServers(const std::vector<InterfaceTable>& tables, const std::vector<Ipv6State>& states,
                        const std::string& defaultInterface,
                        const std::map<std::string, std::vector<std::string>>& nameServers, Plan& plan);

/// Takes everything of IPv6 out of the plan, for a kernel without rules for it: there all routes are in one table.
void LeaveOutIpv6(Plan& plan);

/// When to look at the interfaces' routers again: shortly after the first lifetime is over, and within the hour.
/// Nothing when all of them stay until somebody removes them.
std::optional<std::chrono::milliseconds> FirstExpiry(const std::vector<InterfaceTable>& tables,
                                                     const Snapshot& snapshot);

} // namespace OrvSourceRoutes
