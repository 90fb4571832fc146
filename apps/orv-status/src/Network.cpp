// SPDX-License-Identifier: Apache-2.0
#include "Network.h"

#include "Pieces.h"

#include <OrvNetlink/Messages.h>

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstdint>
#include <iterator>
#include <optional>
#include <system_error>
#include <utility>
#include <vector>

namespace OrvStatus {

using OrvNetlink::Address;
using OrvNetlink::Link;
using OrvNetlink::Route;

namespace {

constexpr std::uint8_t SOURCE_ROUTES = 111; // the protocol number of orv-source-routes' own routes

NetworkView Unknown(const std::string& reason) {
    NetworkView view;
    view.reason = reason;
    return view;
}

/// Fills a view from the kernel's tables, each asked for whole.
class TableReader {
public:
    explicit TableReader(NetworkView& filled) : view(filled) {}

    void AddInterface(const std::string& name, const char* role) {
        view.interfaces.emplace_back();
        view.interfaces.back().name = name;
        view.interfaces.back().role = role;
    }

    bool ReadAll() {
        OrvNetlink::Socket requests;
        bool whole = requests.Dump(RTM_GETLINK, AF_UNSPEC, [this](const nlmsghdr& message) { TakeLink(message); }) &&
                     requests.Dump(RTM_GETADDR, AF_UNSPEC, [this](const nlmsghdr& message) { TakeAddress(message); });
        // IPv6's first: they tell which family's come first.
        for (family = AF_INET6; whole && family != 0; family = family == AF_INET6 ? AF_INET : 0)
            whole = requests.Dump(RTM_GETROUTE, family, [this](const nlmsghdr& message) { TakeRoute(message); });
        return whole;
    }

private:
    void TakeLink(const nlmsghdr& message) {
        std::optional<Link> link = OrvNetlink::ReadLink(message);
        if (!link)
            return;
        for (NetworkView::Interface& interface : view.interfaces) {
            if (interface.name != link->name)
                continue;
            interface.exists = true;
            interface.running = link->running;
            interface.receivedBytes = link->receivedBytes;
            interface.sentBytes = link->sentBytes;
        }
        links.push_back(std::move(*link));
    }

    void TakeAddress(const nlmsghdr& message) {
        const std::optional<Address> address = OrvNetlink::ReadAddress(message);
        if (!address || (!address->address.IsIpv4() && !address->Usable()))
            return;
        const std::string name = NameOf(address->link);
        for (NetworkView::Interface& interface : view.interfaces) {
            if (interface.name == name)
                interface.addresses.push_back(
                    Joined({address->address.Text(), "/", std::to_string(address->prefixLength)}));
        }
    }

    /// The best default route of each family first, and those of one metric in the kernel's order.
    void TakeRoute(const nlmsghdr& message) {
        const std::optional<Route> route = OrvNetlink::ReadRoute(message);
        const bool isIpv6 = family == AF_INET6;
        // A kernel without IPv6 tells IPv4's when it is asked for the others.
        if (!route || route->family != family || route->table != RT_TABLE_MAIN || !route->IsDefault() ||
            route->IsOver() || (isIpv6 && ipv6Ends))
            return;
        if (route->IsUnreachable()) {
            ipv6Ends = isIpv6; // the kernel tells IPv6's in the order of their metrics
            return;
        }
        // The connection manager moves IPv4's route. IPv6's tells the path where there is no other, and where
        // orv-source-routes has followed the connection manager with it to another interface.
        std::string name = NameOf(route->link);
        if (isIpv6)
            ipv6Tells = ipv6Tells || route->protocol == SOURCE_ROUTES;
        else if (!std::exchange(ipv4Seen, true))
            ipv6Tells = ipv6Tells && view.defaults.front().interface != name;
        auto place = view.defaults.end();
        while (place != view.defaults.begin() && GoesBefore(*route, *std::prev(place)))
            --place;
        place = view.defaults.emplace(place);
        place->isIpv6 = isIpv6;
        place->interface.swap(name);
        place->gateway = route->gateway ? route->gateway.Text() : std::string();
        place->metric = route->metric;
    }

    bool GoesBefore(const Route& route, const NetworkView::DefaultRoute& other) const {
        return other.isIpv6 != (family == AF_INET6) ? !ipv6Tells : route.metric < other.metric;
    }

    std::string NameOf(unsigned index) const {
        for (const Link& link : links) {
            if (link.index == index)
                return link.name;
        }
        return "?";
    }

    NetworkView& view;
    std::vector<Link> links;
    std::uint8_t family = AF_UNSPEC; // whose routes are read
    bool ipv6Tells = false;          // the path
    bool ipv4Seen = false;
    bool ipv6Ends = false; // with "unreachable": what comes behind is never used
};

} // namespace

Network::Network(std::string ethernetInterface, std::string cellularInterface)
    : ethernet(std::move(ethernetInterface)), cellular(std::move(cellularInterface)) {
    try {
        notifications = std::make_unique<OrvNetlink::Socket>(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE |
                                                             RTMGRP_IPV6_IFADDR | RTMGRP_IPV6_ROUTE);
    } catch (const std::system_error&) {
        notifications = nullptr; // Read says why
    }
}

void Network::TakeNotifications() {
    if (notifications)
        static_cast<void>(notifications->ReadNotifications([](const nlmsghdr&) {}));
}

NetworkView Network::Read() try {
    NetworkView view;
    TableReader reader(view);
    reader.AddInterface(ethernet, "ethernet");
    reader.AddInterface(cellular, "cellular");
    if (!reader.ReadAll())
        return Unknown("it changes faster than it can be read");
    view.state = Known::PRESENT;
    return view;
} catch (const std::system_error& error) {
    return Unknown(error.what());
}

} // namespace OrvStatus
