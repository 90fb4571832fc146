// SPDX-License-Identifier: Apache-2.0
#include "NetworkWatcher.h"

#include <linux/rtnetlink.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <optional>
#include <utility>
#include <vector>

namespace GatewayApp {

using OrvNetlink::Address;
using OrvNetlink::Link;
using OrvNetlink::Route;

namespace {

constexpr std::uint8_t SOURCE_ROUTES = 111; // the protocol number of orv-source-routes' own routes

bool IsMainDefault(const Route& route) {
    return route.table == RT_TABLE_MAIN && route.IsDefault();
}

bool IsWayOut(const Route& route) {
    return IsMainDefault(route) && !route.IsUnreachable() && !route.IsOver();
}

} // namespace

NetworkWatcher::NetworkWatcher(EventLoop& eventLoop, WanInterfaces wanInterfaces, Handler newsHandler)
    : loop(eventLoop),
      wan(std::move(wanInterfaces)),
      handler(std::move(newsHandler)),
      notifications(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE) {
    ReadAll();
    defaultInterface = FindDefaultInterface();
    loop.Watch(notifications.Descriptor(), EPOLLIN, [this](std::uint32_t) { ReadNotifications(); });
}

NetworkWatcher::~NetworkWatcher() {
    loop.Forget(notifications.Descriptor());
}

void NetworkWatcher::ReadNotifications() {
    WanInterfaces::Events events;
    const bool complete = notifications.ReadNotifications([&](const nlmsghdr& message) {
        const WanInterfaces::Events more = Take(message);
        events.insert(events.end(), more.begin(), more.end());
    });
    if (!complete || missedSome) {
        const WanInterfaces::Events more = ReadAll();
        events.insert(events.end(), more.begin(), more.end());
    }
    if (routersMayDiffer && !missedSome) {
        const WanInterfaces::Events more = ReadRouters();
        events.insert(events.end(), more.begin(), more.end());
    }
    const bool addressesDiffer = std::exchange(addressesMayDiffer, false);
    if (addressesDiffer || !events.empty())
        handler.onEvents(events);
    // Asked for rather than followed: the kernel drops routes without a word when a link goes.
    const std::string now = FindDefaultInterface();
    if (now != defaultInterface) {
        defaultInterface = now;
        handler.onDefaultRoute(now);
    }
}

WanInterfaces::Events NetworkWatcher::Take(const nlmsghdr& message) {
    const std::optional<Link> link = OrvNetlink::ReadLink(message);
    routersMayDiffer = routersMayDiffer || link; // it may be told to drop routes without a word
    // A link keeps its addresses when it is given an interface's name. The kernel announces only the IPv4 ones again.
    missedSome = missedSome || (link && message.nlmsg_type == RTM_NEWLINK && wan.IsNew(*link));
    if (link)
        return message.nlmsg_type == RTM_NEWLINK ? wan.LinkSeen(*link) : wan.LinkGone(*link);
    if (const std::optional<Address> address = OrvNetlink::ReadAddress(message)) {
        addressesMayDiffer = true;
        // The route of a router that is heard again in time is good again without a word; its prefix brings this news.
        routersMayDiffer = routersMayDiffer || !address->address.IsIpv4();
        return message.nlmsg_type == RTM_NEWADDR ? wan.AddressSeen(*address) : wan.AddressGone(*address);
    }
    const std::optional<Route> route = OrvNetlink::ReadRoute(message);
    routersMayDiffer = routersMayDiffer || (route && route->family == AF_INET6 && IsMainDefault(*route));
    return {};
}

WanInterfaces::Events NetworkWatcher::ReadAll() {
    std::vector<Link> links;
    std::vector<Address> addresses;
    std::vector<unsigned> routers;
    const bool whole = requests.Dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr& message) {
        if (std::optional<Link> link = OrvNetlink::ReadLink(message))
            links.push_back(std::move(*link));
    }) && requests.Dump(RTM_GETADDR, AF_UNSPEC, [&](const nlmsghdr& message) {
        if (const std::optional<Address> address = OrvNetlink::ReadAddress(message))
            addresses.push_back(*address);
    }) && DumpRouters(routers);
    missedSome = !whole; // what changes all the time brings the next notification
    addressesMayDiffer = true;
    routersMayDiffer = missedSome;
    return whole ? wan.Replace(links, addresses, std::move(routers)) : WanInterfaces::Events{};
}

WanInterfaces::Events NetworkWatcher::ReadRouters() {
    std::vector<unsigned> routers;
    routersMayDiffer = !DumpRouters(routers);
    return routersMayDiffer ? WanInterfaces::Events{} : wan.RoutersAre(std::move(routers));
}

bool NetworkWatcher::DumpRouters(std::vector<unsigned>& links) {
    return requests.Dump(RTM_GETROUTE, AF_INET6, [&](const nlmsghdr& message) {
        const std::optional<Route> route = OrvNetlink::ReadRoute(message);
        if (route && IsWayOut(*route))
            links.push_back(route->link);
    });
}

std::optional<Link> NetworkWatcher::Find(const std::string& interface) {
    std::optional<Link> found;
    const bool whole = requests.Dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr& message) {
        std::optional<Link> link = OrvNetlink::ReadLink(message);
        if (link && link->name == interface)
            found = std::move(link);
    });
    return whole ? found : std::nullopt;
}

std::string NetworkWatcher::FindDefaultInterface() {
    std::optional<Route> best;
    std::vector<Route> six; // those of the best metric
    bool whole = requests.Dump(RTM_GETROUTE, AF_UNSPEC, [&](const nlmsghdr& message) {
        const std::optional<Route> route = OrvNetlink::ReadRoute(message);
        if (!route || !IsMainDefault(*route) || route->IsOver())
            return;
        if (route->family == AF_INET6) {
            if (!six.empty() && route->metric < six.front().metric)
                six.clear();
            if (six.empty() || route->metric == six.front().metric)
                six.push_back(*route);
        } else if (!route->IsUnreachable() && (!best || route->metric < best->metric)) {
            best = route;
        }
    });
    // The connection manager moves IPv4's. IPv6's tells where there is no other, and where orv-source-routes has
    // followed the connection manager to an interface without IPv4. Anybody on a link can advertise a router: that
    // moves nothing.
    const bool tells = !six.empty() && !six.front().IsUnreachable();
    if (tells && (!best || six.front().protocol == SOURCE_ROUTES))
        best = six.front();
    std::string name;
    if (best) {
        whole = whole && requests.Dump(RTM_GETLINK, AF_UNSPEC, [&](const nlmsghdr& message) {
            const std::optional<Link> link = OrvNetlink::ReadLink(message);
            if (link && link->index == best->link)
                name = link->name;
        });
    }
    return whole ? name : defaultInterface;
}

} // namespace GatewayApp
