// SPDX-License-Identifier: Apache-2.0
#include "Planner.h"

#include <linux/rtnetlink.h>

#include <algorithm>

namespace OrvSourceRoutes {

using OrvNetlink::Address;
using OrvNetlink::Ipv4;
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

/// The router that the main table shows for the interface of `address`; 0.0.0.0 when it shows none.
Ipv4 GatewayInMainTable(const std::vector<Route>& routes, const Address& address) {
    Ipv4 viaAnyRoute;
    Ipv4 host;
    bool manyHosts = false;
    for (const Route& route : routes) {
        if (route.table != RT_TABLE_MAIN || route.link != address.link)
            continue;
        if (route.gateway && route.IsDefault())
            return route.gateway;
        if (route.gateway)
            viaAnyRoute = route.gateway;
        const bool ownHost =
            !route.gateway && route.prefixLength == 32 && route.destination != address.address &&
            route.destination.Network(address.prefixLength) == address.address.Network(address.prefixLength);
        manyHosts = manyHosts || (ownHost && host);
        if (ownHost)
            host = route.destination;
    }
    if (viaAnyRoute || manyHosts)
        return viaAnyRoute;
    return host;
}

bool SamePlace(const Route& one, const Route& other) {
    return one.table == other.table && one.destination == other.destination && one.prefixLength == other.prefixLength &&
           one.metric == other.metric;
}

} // namespace

Plan Planner::Decide(const Snapshot& snapshot) {
    Plan plan;
    for (const InterfaceTable& entry : tables)
        DecideFor(entry, snapshot, plan);
    return plan;
}

void Planner::DecideFor(const InterfaceTable& entry, const Snapshot& snapshot, Plan& plan) {
    std::string& reason = plan.reasons[entry.interface];
    const auto refuse = [&](const char* why) { reason = std::string("no route for bound connections: ") + why; };

    const Link* link = Find(snapshot.links, [&](const Link& candidate) { return candidate.name == entry.interface; });
    const Address* address = link == nullptr ? nullptr : Find(snapshot.addresses, [&](const Address& candidate) {
        return candidate.link == link->index && candidate.global && !candidate.secondary;
    });
    if (address == nullptr) {
        remembered.erase(entry.interface);
        return refuse(link == nullptr ? "the interface does not exist" : "the interface has no IPv4 address");
    }
    const Ipv4 gateway = FindGateway(entry, *address, snapshot);
    if (!link->running)
        return refuse("the link is down");
    if (!gateway && !link->pointToPoint)
        return refuse("its router is not known yet");

    Route route;
    route.table = entry.table;
    route.protocol = kOwnProtocol;
    route.link = link->index;
    route.source = address->address;
    if (address->prefixLength < 32) {
        route.destination = address->address.Network(address->prefixLength);
        route.prefixLength = address->prefixLength;
        plan.routes.push_back(route);
    }
    route.destination = Ipv4{};
    route.prefixLength = 0;
    route.gateway = gateway;
    plan.routes.push_back(route);
    plan.rules.push_back(Rule{entry.table, entry.table, kOwnProtocol, entry.interface});
    reason = "bound connections go " + (gateway ? "via " + gateway.Text() : std::string("over the link")) + " from " +
             address->address.Text() + " (table " + std::to_string(entry.table) + ")";
}

Ipv4 Planner::FindGateway(const InterfaceTable& entry, const Address& address, const Snapshot& snapshot) {
    Router& router = remembered[entry.interface];
    if (!(router.address == address))
        router = Router{address, Ipv4{}};
    if (const Ipv4 shown = GatewayInMainTable(snapshot.routes, address)) {
        router.gateway = shown;
    } else if (!router.gateway) {
        const Route* left = Find(snapshot.routes, [&](const Route& route) {
            return route.protocol == kOwnProtocol && route.table == entry.table && route.IsDefault() &&
                   route.link == address.link && route.source == address.address;
        });
        router.gateway = left == nullptr ? Ipv4{} : left->gateway;
    }
    return router.gateway;
}

Changes Difference(const Snapshot& snapshot, const Plan& plan) {
    Changes changes;
    for (const Route& wanted : plan.routes) {
        if (Contains(snapshot.routes, wanted))
            continue;
        const bool replaces = Find(snapshot.routes, [&](const Route& route) {
                                  return route.protocol == kOwnProtocol && SamePlace(route, wanted);
                              }) != nullptr;
        changes.routesToAdd.push_back({wanted, replaces});
    }
    for (const Route& route : snapshot.routes) {
        const bool replaced = Find(changes.routesToAdd, [&](const Changes::Addition& addition) {
                                  return SamePlace(addition.route, route);
                              }) != nullptr;
        if (route.protocol == kOwnProtocol && !Contains(plan.routes, route) && !replaced)
            changes.routesToRemove.push_back(route);
    }
    for (const Rule& wanted : plan.rules) {
        if (!Contains(snapshot.rules, wanted))
            changes.rulesToAdd.push_back(wanted);
    }
    for (const Rule& rule : snapshot.rules) {
        if (rule.protocol == kOwnProtocol && !Contains(plan.rules, rule))
            changes.rulesToRemove.push_back(rule);
    }
    return changes;
}

} // namespace OrvSourceRoutes
