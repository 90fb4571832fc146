// SPDX-License-Identifier: Apache-2.0
#include "Network.h"

#include <OrvNetlink/Messages.h>

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <optional>
#include <system_error>

namespace OrvStatus {

using OrvNetlink::Address;
using OrvNetlink::Link;
using OrvNetlink::Route;

namespace {

NetworkView Unknown(const std::string& reason) {
    NetworkView view;
    view.reason = reason;
    return view;
}

/// The kernel's tables, each asked for whole.
struct Tables {
    std::vector<Link> links;
    std::vector<Address> addresses;
    std::vector<Route> defaults;

    bool Ask() {
        OrvNetlink::Socket requests;
        const auto into = [](auto& list, auto read) {
            return [&list, read](const nlmsghdr& message) {
                if (auto found = read(message))
                    list.push_back(std::move(*found));
            };
        };
        std::vector<Route> routes;
        const bool whole = requests.Dump(RTM_GETLINK, AF_UNSPEC, into(links, OrvNetlink::ReadLink)) &&
                           requests.Dump(RTM_GETADDR, AF_INET, into(addresses, OrvNetlink::ReadAddress)) &&
                           requests.Dump(RTM_GETROUTE, AF_INET, into(routes, OrvNetlink::ReadRoute));
        std::copy_if(routes.begin(), routes.end(), std::back_inserter(defaults),
                     [](const Route& route) { return route.table == RT_TABLE_MAIN && route.IsDefault(); });
        std::stable_sort(defaults.begin(), defaults.end(),
                         [](const Route& one, const Route& other) { return one.metric < other.metric; });
        return whole;
    }

    NetworkView::Interface Interface(const std::string& name, const char* role) const {
        NetworkView::Interface interface;
        interface.name = name;
        interface.role = role;
        const auto link =
            std::find_if(links.begin(), links.end(), [&name](const Link& one) { return one.name == name; });
        if (link == links.end())
            return interface;
        interface.exists = true;
        interface.running = link->running;
        interface.receivedBytes = link->receivedBytes;
        interface.sentBytes = link->sentBytes;
        for (const Address& address : addresses) {
            if (address.link == link->index)
                interface.addresses.push_back(address.address.Text() + "/" + std::to_string(address.prefixLength));
        }
        return interface;
    }

    std::string NameOf(unsigned index) const {
        const auto link =
            std::find_if(links.begin(), links.end(), [index](const Link& one) { return one.index == index; });
        return link == links.end() ? "?" : link->name;
    }
};

} // namespace

Network::Network(std::string ethernetInterface, std::string cellularInterface)
    : ethernet(std::move(ethernetInterface)), cellular(std::move(cellularInterface)) {
    try {
        notifications = std::make_unique<OrvNetlink::Socket>(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE);
    } catch (const std::system_error&) {
        notifications = nullptr; // Read says why
    }
}

void Network::TakeNotifications() {
    if (notifications)
        static_cast<void>(notifications->ReadNotifications([](const nlmsghdr&) {}));
}

NetworkView Network::Read() try {
    Tables tables;
    if (!tables.Ask())
        return Unknown("it changes faster than it can be read");
    NetworkView view;
    view.state = Known::PRESENT;
    view.interfaces = {tables.Interface(ethernet, "ethernet"), tables.Interface(cellular, "cellular")};
    for (const Route& route : tables.defaults)
        view.defaults.push_back(
            {tables.NameOf(route.link), route.gateway ? route.gateway.Text() : std::string(), route.metric});
    return view;
} catch (const std::system_error& error) {
    return Unknown(error.what());
}

} // namespace OrvStatus
