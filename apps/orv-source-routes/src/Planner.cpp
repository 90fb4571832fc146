// SPDX-License-Identifier: Apache-2.0
#include "Planner.h"

#include "Ipv6Plan.h"

#include <linux/rtnetlink.h>

#include <algorithm>

namespace OrvSourceRoutes {

using OrvNetlink::Address;
using OrvNetlink::IpAddress;
using OrvNetlink::Link;
using OrvNetlink::Route;
using OrvNetlink::Rule;

namespace {

template <typename Container, typename Predicate>
auto Find(const Container& container, Predicate predicate) -> decltype(container.data()) {
    const auto found = std::find_if(container.begin(), container.end(), predicate);
    return found == container.end() ? nullptr : &*found;
}

template <typename Container, typename Value>
bool Contains(const Container& container, const Value& value) {
    return std::find(container.begin(), container.end(), value) != container.end();
}

/// What the main table shows of an interface's routers.
struct Seen {
    IpAddress ofDefault;
    std::vector<IpAddress> neighbours; // with a host route of their own
    std::vector<IpAddress> ofHosts;    // routers of host routes
    std::vector<IpAddress> ofNetworks; // routers of other routes

    bool LeadsSomewhere(const IpAddress& router) const {
        return Contains(ofHosts, router) || Contains(ofNetworks, router);
    }
};

Seen SeenInMainTable(const std::vector<Route>& routes, const Address& address) {
    Seen seen;
    const auto note = [](std::vector<IpAddress>& routers, const IpAddress& router) {
        if (!Contains(routers, router))
            routers.push_back(router);
    };
    for (const Route& route : routes) {
        if (route.family != AF_INET || route.table != RT_TABLE_MAIN || route.link != address.link)
            continue;
        const bool toHost = route.prefixLength == 32;
        const bool inOwnNetwork =
            route.destination.Network(address.prefixLength) == address.address.Network(address.prefixLength);
        if (route.gateway && route.IsDefault() && !seen.ofDefault)
            seen.ofDefault = route.gateway;
        else if (route.gateway && !route.IsDefault())
            note(toHost ? seen.ofHosts : seen.ofNetworks, route.gateway);
        else if (!route.gateway && toHost && inOwnNetwork && route.destination != address.address)
            note(seen.neighbours, route.destination);
    }
    return seen;
}

/// The router of the interface, as far as the connection manager's own routes say; 0.0.0.0 when they do not.
IpAddress CertainRouter(const Seen& seen) {
    if (seen.ofDefault)
        return seen.ofDefault;
    if (seen.neighbours.size() == 1)
        return seen.neighbours.front();
    const auto leads = [&seen](const IpAddress& router) { return seen.LeadsSomewhere(router); };
    const bool one = std::count_if(seen.neighbours.begin(), seen.neighbours.end(), leads) == 1;
    return one ? *Find(seen.neighbours, leads) : IpAddress{};
}

/// A router that other routes go via, if there is only one; 0.0.0.0 otherwise.
IpAddress LikelyRouter(const Seen& seen) {
    const std::vector<IpAddress>& routers = seen.ofHosts.empty() ? seen.ofNetworks : seen.ofHosts;
    return routers.size() == 1 ? routers.front() : IpAddress{};
}

bool SamePlace(const Route& one, const Route& other) {
    return one.family == other.family && one.table == other.table && one.destination == other.destination &&
           one.prefixLength == other.prefixLength && one.metric == other.metric;
}

} // namespace

std::string Ipv4DefaultInterface(const Snapshot& snapshot) {
    const Route* best = nullptr;
    for (const Route& route : snapshot.routes) {
        if (route.family == AF_INET && route.table == RT_TABLE_MAIN && route.IsDefault() && !route.IsUnreachable() &&
            (best == nullptr || route.metric < best->metric))
            best = &route;
    }
    const Link* link = best == nullptr
                           ? nullptr
                           : Find(snapshot.links, [&](const Link& candidate) { return candidate.index == best->link; });
    return link == nullptr ? std::string() : link->name;
}

Plan Planner::Decide(const Snapshot& snapshot) {
    Plan plan;
    for (const InterfaceTable& entry : tables)
        DecideFor(entry, snapshot, plan);
    DecideIpv6(snapshot, plan);
    return plan;
}

std::optional<std::chrono::milliseconds> Planner::NextExpiry(const Snapshot& snapshot) const {
    return FirstExpiry(tables, snapshot);
}

void Planner::DecideIpv6(const Snapshot& snapshot, Plan& plan) {
    std::vector<Ipv6State> states;
    for (const InterfaceTable& entry : tables) {
        states.push_back(LookAtIpv6(entry, snapshot));
        AddIpv6Table(entry, states.back(), plan);
        if (!states.back().ownNetworks.empty())
            withIpv6.insert(entry.interface);
        if (withIpv6.count(entry.interface) != 0)
            plan.reasons[entry.interface + IPV6_SUFFIX] = Ipv6Reason(entry, states.back());
    }
    const std::string& told = snapshot.connman.defaultInterface;
    const std::string defaultInterface = told.empty() ? Ipv4DefaultInterface(snapshot) : told;
    AddIpv6Default(tables, states, defaultInterface, plan);
    AddIpv6NameServers(tables, states, defaultInterface, snapshot.connman.nameServers, plan);
}

void Planner::DecideFor(const InterfaceTable& entry, const Snapshot& snapshot, Plan& plan) {
    std::string& reason = plan.reasons[entry.interface];
    const auto refuse = [&](const char* why) { reason = std::string("no route for bound connections: ") + why; };

    const Link* link = Find(snapshot.links, [&](const Link& candidate) { return candidate.name == entry.interface; });
    const Address* address = link == nullptr ? nullptr : Find(snapshot.addresses, [&](const Address& candidate) {
        return candidate.link == link->index && candidate.global && !candidate.secondary && candidate.address.IsIpv4();
    });
    if (address == nullptr) {
        remembered.erase(entry.interface);
        return refuse(link == nullptr ? "the interface does not exist" : "the interface has no IPv4 address");
    }
    const IpAddress gateway = FindGateway(entry, *address, snapshot);
    if (!link->running)
        return refuse("the link is down");
    if (!gateway && !link->pointToPoint)
        return refuse("its router is not known yet");

    Route route;
    route.table = entry.table;
    route.protocol = OWN_PROTOCOL;
    route.link = link->index;
    route.source = address->address;
    if (address->prefixLength < 32) {
        route.destination = address->address.Network(address->prefixLength);
        route.prefixLength = address->prefixLength;
        plan.routes.push_back(route);
    }
    route.destination = IpAddress{};
    route.prefixLength = 0;
    route.gateway = gateway;
    plan.routes.push_back(route);
    plan.rules.push_back(Rule{entry.table, entry.table, OWN_PROTOCOL, entry.interface, IpAddress{}});
    plan.rules.push_back(Rule{BEHIND_MAIN, entry.table, OWN_PROTOCOL, {}, address->address, 32});
    reason = "bound connections go " + (gateway ? "via " + gateway.Text() : std::string("over the link")) + " from " +
             address->address.Text() + " (table " + std::to_string(entry.table) + ")";
}

IpAddress Planner::FindGateway(const InterfaceTable& entry, const Address& address, const Snapshot& snapshot) {
    Router& router = remembered[entry.interface];
    if (!(router.address == address)) {
        const Route* left = Find(snapshot.routes, [&](const Route& route) {
            return route.family == AF_INET && route.protocol == OWN_PROTOCOL && route.table == entry.table &&
                   route.IsDefault() && route.link == address.link && route.source == address.address;
        });
        router = Router{address, left == nullptr ? IpAddress{} : left->gateway, false};
    }
    const Seen seen = SeenInMainTable(snapshot.routes, address);
    if (const IpAddress certain = CertainRouter(seen))
        router = Router{address, certain, false};
    else if (const IpAddress likely = LikelyRouter(seen); likely && (!router.gateway || router.guessed))
        router = Router{address, likely, true};
    return router.gateway;
}

Changes Difference(const Snapshot& snapshot, const Plan& plan) {
    Changes changes;
    for (const Route& wanted : plan.routes) {
        if (Contains(snapshot.routes, wanted))
            continue;
        const bool replaces = Find(snapshot.routes, [&](const Route& route) {
                                  return route.protocol == OWN_PROTOCOL && SamePlace(route, wanted);
                              }) != nullptr;
        changes.routesToAdd.push_back({wanted, replaces});
    }
    for (const Route& route : snapshot.routes) {
        const bool replaced = Find(changes.routesToAdd, [&](const Changes::Addition& addition) {
                                  return SamePlace(addition.route, route);
                              }) != nullptr;
        if (route.protocol == OWN_PROTOCOL && !Contains(plan.routes, route) && !replaced)
            changes.routesToRemove.push_back(route);
    }
    for (const Rule& wanted : plan.rules) {
        if (!Contains(snapshot.rules, wanted))
            changes.rulesToAdd.push_back(wanted);
    }
    for (const Rule& rule : snapshot.rules) {
        if (rule.protocol == OWN_PROTOCOL && !Contains(plan.rules, rule))
            changes.rulesToRemove.push_back(rule);
    }
    return changes;
}

} // namespace OrvSourceRoutes
