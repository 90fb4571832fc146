// SPDX-License-Identifier: Apache-2.0
#include "gateway/RoutesModel.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>

#include <algorithm>

namespace OrvLab {

namespace {

constexpr std::uint8_t OWN = 111;
constexpr std::uint32_t BEHIND_MAIN = 32768;
constexpr std::uint32_t METRIC = 100;

std::string Network(const std::string& address, unsigned length) {
    const int family = address.find(':') == std::string::npos ? AF_INET : AF_INET6;
    unsigned char bytes[16] = {};
    inet_pton(family, address.c_str(), bytes);
    for (unsigned bit = length; bit < (family == AF_INET ? 32U : 128U); ++bit)
        bytes[bit / 8] &= static_cast<unsigned char>(~(0x80U >> bit % 8));
    char text[INET6_ADDRSTRLEN] = {};
    inet_ntop(family, bytes, text, sizeof text);
    return text;
}

} // namespace

std::multiset<std::string> RoutesModel::OwnRoutes(int family, std::uint32_t table) const {
    std::multiset<std::string> found;
    for (const KernelRoute& route : kernel.Routes())
        if (route.protocol == OWN && route.family == family && route.table == table)
            found.insert(route.Text());
    return found;
}

std::multiset<std::string> RoutesModel::OwnRules(int family, std::uint32_t table) const {
    std::multiset<std::string> found;
    for (const KernelRule& rule : kernel.Rules())
        if (rule.protocol == OWN && rule.family == family && rule.table == table)
            found.insert(rule.Text());
    return found;
}

std::string RoutesModel::Compare(const std::string& what, std::multiset<std::string> wanted,
                                 std::multiset<std::string> found) const {
    for (const std::string& one : wanted)
        if (found.count(one) == 0)
            return what + ": \"" + one + "\" is missing";
    for (const std::string& one : found)
        if (wanted.count(one) == 0)
            return what + ": \"" + one + "\" is too much";
    return wanted.size() == found.size() ? "" : what + ": something stands twice";
}

std::string RoutesModel::Wrong(const std::string& name, std::uint32_t table) const {
    const std::string four = WrongFour(name, table);
    return four.empty() ? WrongSix(name, table) : four;
}

std::string RoutesModel::WrongFour(const std::string& name, std::uint32_t table) const {
    const KernelLink* const link = kernel.Link(name);
    const KernelAddress* own = nullptr;
    for (const KernelAddress& one : kernel.Addresses())
        if (own == nullptr && link != nullptr && one.link == link->index && !one.IsSix() && one.IsGlobal())
            own = &one;
    std::multiset<std::string> routes;
    std::multiset<std::string> rules;
    const auto foundRoutes = OwnRoutes(AF_INET, table);
    if (own != nullptr && link->Running()) {
        // The main table says who the router is; what it said once is remembered while the address stays.
        std::string router;
        for (const KernelRoute& route : kernel.Routes()) {
            const bool here = route.link == link->index && route.family == AF_INET && route.table == RT_TABLE_MAIN;
            if (here && !route.gateway.empty())
                router = route.gateway;
            if (here && route.gateway.empty() && route.length == 32 && route.destination != own->text &&
                router.empty() && Network(route.destination, own->length) == Network(own->text, own->length))
                router = route.destination;
        }
        KernelRoute way{AF_INET, table, OWN, link->index, false, "", 0, router, own->text};
        if (router.empty() && !foundRoutes.empty() && kernel.HasNamedRouter(link->index)) {
            way.gateway = name == "eth0" ? "192.0.2.1" : "203.0.113.1"; // there is no other
            if (foundRoutes.count(way.Text()) == 0)
                way.gateway.clear();
        }
        if (!way.gateway.empty() || link->pointToPoint) {
            routes.insert(way.Text());
            way.gateway.clear();
            way.destination = Network(own->text, own->length);
            way.length = own->length;
            routes.insert(way.Text());
            rules.insert(KernelRule{AF_INET, table, table, OWN, name}.Text());
            rules.insert(KernelRule{AF_INET, BEHIND_MAIN, table, OWN, "", own->text, 32}.Text());
        }
    }
    const std::string wrong = Compare(name, routes, foundRoutes);
    return wrong.empty() ? Compare(name, rules, OwnRules(AF_INET, table)) : wrong;
}

RoutesModel::Six RoutesModel::LookAtSix(const std::string& name) const {
    Six six;
    six.link = kernel.Link(name);
    if (six.link == nullptr)
        return six;
    for (const KernelAddress& own : kernel.Addresses())
        if (own.link == six.link->index && own.IsSix() && own.IsGlobal() && !own.tentative && !own.duplicate)
            six.networks.insert(Network(own.text, own.length));
    for (const KernelRoute& route : kernel.Routes()) {
        if (route.family != AF_INET6 || route.table != RT_TABLE_MAIN || route.protocol == OWN ||
            route.link != six.link->index || !route.IsDefault() || route.unreachable || route.expires <= now)
            continue;
        if (six.router == nullptr || route.metric < six.router->metric)
            six.router = &route;
    }
    return six;
}

std::string RoutesModel::WrongSix(const std::string& name, std::uint32_t table) const {
    const Six six = LookAtSix(name);
    std::multiset<std::string> routes;
    std::multiset<std::string> rules;
    if (six.HasWayOut() && kernel.HasSixRules()) {
        for (const KernelRoute& route : kernel.Routes())
            if (route.family == AF_INET6 && route.table == RT_TABLE_MAIN && route.protocol != OWN &&
                route.link == six.link->index && !route.IsDefault() && route.gateway.empty())
                routes.insert(KernelRoute{AF_INET6, table, OWN, six.link->index, false, route.destination, route.length,
                                          "", "", METRIC}
                                  .Text());
        routes.insert(
            KernelRoute{AF_INET6, table, OWN, six.link->index, false, "", 0, six.router->gateway, "", METRIC}.Text());
        rules.insert(KernelRule{AF_INET6, table, table, OWN, name}.Text());
        for (const std::string& network : six.networks)
            rules.insert(KernelRule{AF_INET6, table, table, OWN, "", network, 64}.Text());
    }
    const std::string wrong = Compare(name + ", IPv6", routes, OwnRoutes(AF_INET6, table));
    return wrong.empty() ? Compare(name + ", IPv6", rules, OwnRules(AF_INET6, table)) : wrong;
}

std::string RoutesModel::WrongInMain(const std::string& told) const {
    std::string interface = told;
    if (interface.empty()) {
        const KernelRoute* best = nullptr;
        for (const KernelRoute& route : kernel.Routes())
            if (route.family == AF_INET && route.table == RT_TABLE_MAIN && route.IsDefault() &&
                (best == nullptr || route.metric < best->metric))
                best = &route;
        for (const KernelLink& link : kernel.Links())
            interface = best != nullptr && link.index == best->link ? link.name : interface;
    }
    std::multiset<std::string> routes;
    const bool any = LookAtSix("eth0").HasWayOut() || LookAtSix("wwan0").HasWayOut();
    if (any && kernel.HasSixRules() && (interface == "eth0" || interface == "wwan0")) {
        const Six six = LookAtSix(interface);
        KernelRoute route{AF_INET6, RT_TABLE_MAIN, OWN, 0, true, "", 0, "", "", METRIC};
        if (six.HasWayOut()) {
            route.unreachable = false;
            route.link = six.link->index;
            route.gateway = six.router->gateway;
        }
        routes.insert(route.Text());
    }
    return Compare("the main table", routes, OwnRoutes(AF_INET6, RT_TABLE_MAIN));
}

std::string RoutesModel::Left() const {
    for (const KernelRoute& route : kernel.Routes())
        if (route.protocol == OWN)
            return "route " + route.Text();
    for (const KernelRule& rule : kernel.Rules())
        if (rule.protocol == OWN)
            return "rule " + rule.Text();
    return {};
}

} // namespace OrvLab
