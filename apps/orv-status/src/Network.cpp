// SPDX-License-Identifier: Apache-2.0
#include "Network.h"

#include "Pieces.h"

#include <OrvNetlink/Messages.h>

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <iterator>
#include <optional>
#include <system_error>
#include <vector>

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
        return requests.Dump(RTM_GETLINK, AF_UNSPEC, [this](const nlmsghdr& message) { TakeLink(message); }) &&
               requests.Dump(RTM_GETADDR, AF_INET, [this](const nlmsghdr& message) { TakeAddress(message); }) &&
               requests.Dump(RTM_GETROUTE, AF_INET, [this](const nlmsghdr& message) { TakeRoute(message); });
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
        if (!address)
            return;
        const std::string name = NameOf(address->link);
        for (NetworkView::Interface& interface : view.interfaces) {
            if (interface.name == name)
                interface.addresses.push_back(
                    Joined({address->address.Text(), "/", std::to_string(address->prefixLength)}));
        }
    }

    /// The best default route first, and those of one metric in the kernel's order.
    void TakeRoute(const nlmsghdr& message) {
        const std::optional<Route> route = OrvNetlink::ReadRoute(message);
        if (!route || route->table != RT_TABLE_MAIN || !route->IsDefault() || route->IsUnreachable())
            return;
        auto place = view.defaults.end();
        while (place != view.defaults.begin() && route->metric < std::prev(place)->metric)
            --place;
        place = view.defaults.emplace(place);
        place->interface = NameOf(route->link);
        place->gateway = route->gateway ? route->gateway.Text() : std::string();
        place->metric = route->metric;
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
