// SPDX-License-Identifier: Apache-2.0
#include "Ipv6Plan.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <cstring>
#include <iterator>

namespace OrvSourceRoutes {

const char* const IPV6_SUFFIX = ", IPv6";

using OrvNetlink::Address;
using OrvNetlink::IpAddress;
using OrvNetlink::Link;
using OrvNetlink::Route;
using OrvNetlink::Rule;

namespace {

const Link* FindLink(const InterfaceTable& entry, const Snapshot& snapshot) {
    const auto found = std::find_if(snapshot.links.begin(), snapshot.links.end(),
                                    [&](const Link& candidate) { return candidate.name == entry.interface; });
    return found == snapshot.links.end() ? nullptr : &*found;
}

bool IsOthersInMainTable(const Route& route, unsigned link) {
    return route.family == AF_INET6 && route.table == RT_TABLE_MAIN && route.protocol != OWN_PROTOCOL &&
           route.link == link && !route.IsOver();
}

bool IsBetter(const Route& one, const Route& other) {
    return one.metric != other.metric ? one.metric < other.metric : one.preference > other.preference;
}

Route NewRoute(std::uint32_t table, unsigned link, const IpAddress& destination, unsigned length) {
    Route route;
    route.family = AF_INET6;
    route.table = table;
    route.protocol = OWN_PROTOCOL;
    route.link = link;
    route.destination = destination;
    route.prefixLength = length;
    route.metric = IPV6_METRIC;
    return route;
}

Rule NewRule(const InterfaceTable& entry) {
    Rule rule;
    rule.family = AF_INET6;
    rule.priority = entry.table;
    rule.table = entry.table;
    rule.protocol = OWN_PROTOCOL;
    return rule;
}

void FindNetworks(Ipv6State& state, const InterfaceTable& entry, const Snapshot& snapshot) {
    const auto note = [](std::vector<Route>& networks, const Route& network) {
        if (std::find(networks.begin(), networks.end(), network) == networks.end())
            networks.push_back(network);
    };
    for (const Address& own : snapshot.addresses) {
        if (own.link == state.link->index && own.Usable() && !own.address.IsIpv4())
            note(state.ownNetworks,
                 NewRoute(entry.table, own.link, own.address.Network(own.prefixLength), own.prefixLength));
    }
    for (const Route& route : snapshot.routes) {
        if (IsOthersInMainTable(route, state.link->index) && !route.IsDefault() && !route.gateway)
            note(state.onLink, NewRoute(entry.table, route.link, route.destination, route.prefixLength));
    }
}

void FindRouter(Ipv6State& state, const InterfaceTable& entry, const Snapshot& snapshot) {
    const Route* best = nullptr;
    const auto used = [&](const Route& candidate) {
        return std::any_of(snapshot.routes.begin(), snapshot.routes.end(), [&](const Route& own) {
            return own.family == AF_INET6 && own.protocol == OWN_PROTOCOL && own.table == entry.table &&
                   own.IsDefault() && own.link == candidate.link && own.gateway == candidate.gateway;
        });
    };
    for (const Route& route : snapshot.routes) {
        if (!IsOthersInMainTable(route, state.link->index) || !route.IsDefault() ||
            (!route.gateway && !state.link->pointToPoint))
            continue;
        if (best == nullptr || IsBetter(route, *best) || (!IsBetter(*best, route) && used(route)))
            best = &route;
    }
    state.hasRouter = best != nullptr;
    if (best != nullptr)
        state.gateway = best->gateway;
}

/// Those beyond their link.
std::vector<IpAddress> Ipv6ServersOf(const std::string& interface,
                                     const std::map<std::string, std::vector<std::string>>& nameServers) {
    std::vector<IpAddress> servers;
    const auto found = nameServers.find(interface);
    if (found == nameServers.end())
        return servers;
    for (const std::string& text : found->second) {
        const std::optional<IpAddress> server = IpAddress::Parse(text);
        if (server && !server->IsIpv4() && !server->IsLinkLocal())
            servers.push_back(*server);
    }
    return servers;
}

bool IsOnLink(const IpAddress& server, const Ipv6State& state) {
    return std::any_of(state.onLink.begin(), state.onLink.end(), [&](const Route& network) {
        return server.Network(network.prefixLength) == network.destination;
    });
}

} // namespace

Ipv6State LookAtIpv6(const InterfaceTable& entry, const Snapshot& snapshot) {
    Ipv6State state;
    state.link = FindLink(entry, snapshot);
    if (state.link == nullptr)
        return state;
    FindNetworks(state, entry, snapshot);
    FindRouter(state, entry, snapshot);
    return state;
}

void AddIpv6Table(const InterfaceTable& entry, const Ipv6State& state, Plan& plan) {
    if (!state.HasWayOut())
        return;
    plan.routes.insert(plan.routes.end(), state.onLink.begin(), state.onLink.end());
    Route way = NewRoute(entry.table, state.link->index, {}, 0);
    way.gateway = state.gateway;
    plan.routes.push_back(way);
    Rule bound = NewRule(entry);
    bound.interface = entry.interface;
    plan.rules.push_back(bound);
    for (const Route& network : state.ownNetworks) {
        Rule from = NewRule(entry);
        from.source = network.destination;
        from.prefixLength = network.prefixLength;
        plan.rules.push_back(from);
    }
}

std::string Ipv6Reason(const InterfaceTable& entry, const Ipv6State& state) {
    const std::string none = "no route for bound connections: ";
    if (state.link == nullptr)
        return none + "the interface does not exist";
    if (state.ownNetworks.empty())
        return none + "the interface has no IPv6 address";
    if (!state.link->running)
        return none + "the link is down";
    if (!state.hasRouter)
        return none + "no router is advertised";
    std::string networks;
    for (const Route& network : state.ownNetworks)
        networks +=
            (networks.empty() ? "" : ", ") + network.destination.Text() + "/" + std::to_string(network.prefixLength);
    return "bound connections go " + (state.gateway ? "via " + state.gateway.Text() : std::string("over the link")) +
           " from " + networks + " (table " + std::to_string(entry.table) + ")";
}

void AddIpv6Default(const std::vector<InterfaceTable>& tables, const std::vector<Ipv6State>& states,
                    const std::string& defaultInterface, Plan& plan) {
    const auto hasWayOut = [](const Ipv6State& state) { return state.HasWayOut(); };
    if (std::none_of(states.begin(), states.end(), hasWayOut))
        return;
    for (std::size_t i = 0; i < tables.size(); ++i) {
        if (tables[i].interface != defaultInterface)
            continue;
        const bool has = states[i].HasWayOut();
        Route route = NewRoute(RT_TABLE_MAIN, has ? states[i].link->index : 0, {}, 0);
        if (has)
            route.gateway = states[i].gateway;
        plan.routes.push_back(route);
    }
}

void AddIpv6NameServers(const std::vector<InterfaceTable>& tables, const std::vector<Ipv6State>& states,
                        const std::string& defaultInterface,
                        const std::map<std::string, std::vector<std::string>>& nameServers, Plan& plan) {
    std::vector<IpAddress> done;
    for (std::size_t i = 0; i < tables.size(); ++i) {
        if (tables[i].interface == defaultInterface && states[i].HasWayOut())
            done = Ipv6ServersOf(defaultInterface, nameServers);
    }
    for (std::size_t i = 0; i < tables.size(); ++i) {
        if (tables[i].interface == defaultInterface || !states[i].HasWayOut())
            continue;
        for (const IpAddress& server : Ipv6ServersOf(tables[i].interface, nameServers)) {
            if (std::find(done.begin(), done.end(), server) != done.end() || IsOnLink(server, states[i]))
                continue;
            Route route = NewRoute(RT_TABLE_MAIN, states[i].link->index, server, server.Bits());
            route.gateway = states[i].gateway;
            plan.routes.push_back(route);
            done.push_back(server);
        }
    }
}

void LeaveOutIpv6(Plan& plan) {
    const auto leaveOut = [](auto& entries) {
        const auto isIpv6 = [](const auto& entry) { return entry.family == AF_INET6; };
        entries.erase(std::remove_if(entries.begin(), entries.end(), isIpv6), entries.end());
    };
    leaveOut(plan.routes);
    leaveOut(plan.rules);
    for (auto reason = plan.reasons.begin(); reason != plan.reasons.end();) {
        const std::size_t comma = reason->first.rfind(IPV6_SUFFIX);
        const bool isIpv6 = comma != std::string::npos && comma + std::strlen(IPV6_SUFFIX) == reason->first.size();
        reason = isIpv6 ? plan.reasons.erase(reason) : std::next(reason);
    }
}

std::optional<std::chrono::milliseconds> FirstExpiry(const std::vector<InterfaceTable>& tables,
                                                     const Snapshot& snapshot) {
    constexpr std::chrono::milliseconds behind(20);
    std::optional<std::chrono::milliseconds> first;
    for (const InterfaceTable& entry : tables) {
        const Link* link = FindLink(entry, snapshot);
        for (const Route& route : snapshot.routes) {
            if (link == nullptr || !IsOthersInMainTable(route, link->index) || !route.IsDefault() || !route.lifetime)
                continue;
            const std::chrono::milliseconds over =
                std::min<std::chrono::milliseconds>(*route.lifetime + behind, std::chrono::hours(1));
            first = first ? std::min(*first, over) : over;
        }
    }
    return first;
}

} // namespace OrvSourceRoutes
