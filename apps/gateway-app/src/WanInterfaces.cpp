// SPDX-License-Identifier: Apache-2.0
#include "WanInterfaces.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace GatewayApp {

using OrvNetlink::Address;
using OrvNetlink::Link;
using OrvStackSdk::OrvEvent;

WanInterfaces::WanInterfaces(const std::string& ethernet, const std::string& cellular)
    : interfaces{{ethernet,
                  OrvEvent::ETHERNET_CONNECTED,
                  OrvEvent::ETHERNET_DISCONNECTED,
                  OrvEvent::ETHERNET_IP_GAINED,
                  OrvEvent::ETHERNET_IP_LOST,
                  0,
                  false,
                  {},
                  false},
                 {cellular,
                  OrvEvent::CELLULAR_CONNECTED,
                  OrvEvent::CELLULAR_DISCONNECTED,
                  OrvEvent::CELLULAR_IP_GAINED,
                  OrvEvent::CELLULAR_IP_LOST,
                  0,
                  false,
                  {},
                  false}} {}

WanInterfaces::Interface* WanInterfaces::ByIndex(unsigned index) {
    for (Interface& interface : interfaces) {
        if (index != 0 && interface.index == index)
            return &interface;
    }
    return nullptr;
}

void WanInterfaces::SetRunning(Interface& interface, bool running, Events& events) {
    if (interface.running != running)
        events.push_back(running ? interface.connected : interface.disconnected);
    interface.running = running;
}

bool WanInterfaces::Interface::ReachesOut() const {
    return std::any_of(addresses.begin(), addresses.end(),
                       [this](const Address& own) { return own.Usable() && (own.address.IsIpv4() || router); });
}

void WanInterfaces::SetReach(Interface& interface, std::vector<Address> addresses, bool router, Events& events) {
    const bool before = interface.ReachesOut();
    interface.addresses = std::move(addresses);
    interface.router = router;
    if (interface.ReachesOut() != before)
        events.push_back(before ? interface.lost : interface.gained);
}

bool WanInterfaces::HasRouter(unsigned index) const {
    return std::find(routers.begin(), routers.end(), index) != routers.end();
}

WanInterfaces::Events WanInterfaces::RoutersAre(std::vector<unsigned> links) {
    Events events;
    routers = std::move(links);
    for (Interface& interface : interfaces)
        SetReach(interface, interface.addresses, HasRouter(interface.index), events);
    return events;
}

WanInterfaces::Events WanInterfaces::LinkSeen(const Link& link) {
    Events events;
    Interface* known = ByIndex(link.index);
    if (known != nullptr && known->name != link.name)
        events = LinkGone(link); // renamed
    for (Interface& interface : interfaces) {
        if (interface.name != link.name)
            continue;
        if (interface.index != link.index)
            SetReach(interface, {}, HasRouter(link.index), events);
        interface.index = link.index;
        SetRunning(interface, link.running, events);
    }
    return events;
}

WanInterfaces::Events WanInterfaces::LinkGone(const Link& link) {
    Events events;
    if (Interface* interface = ByIndex(link.index)) {
        SetRunning(*interface, false, events);
        SetReach(*interface, {}, false, events);
        interface->index = 0;
    }
    return events;
}

WanInterfaces::Events WanInterfaces::AddressSeen(const Address& address) {
    Events events;
    Interface* interface = ByIndex(address.link);
    if (interface == nullptr || !address.global)
        return events;
    std::vector<Address> addresses = interface->addresses;
    const auto known = std::find(addresses.begin(), addresses.end(), address);
    if (known == addresses.end())
        addresses.push_back(address);
    else
        *known = address; // its state has changed
    SetReach(*interface, std::move(addresses), interface->router, events);
    return events;
}

WanInterfaces::Events WanInterfaces::AddressGone(const Address& address) {
    Events events;
    Interface* interface = ByIndex(address.link);
    if (interface == nullptr)
        return events;
    std::vector<Address> addresses = interface->addresses;
    addresses.erase(std::remove(addresses.begin(), addresses.end(), address), addresses.end());
    SetReach(*interface, std::move(addresses), interface->router, events);
    return events;
}

WanInterfaces::Events WanInterfaces::Replace(const std::vector<Link>& links, const std::vector<Address>& addresses,
                                             std::vector<unsigned> withRouter) {
    Events events;
    routers = std::move(withRouter);
    for (Interface& interface : interfaces) {
        const auto link =
            std::find_if(links.begin(), links.end(), [&](const Link& one) { return one.name == interface.name; });
        const bool exists = link != links.end();
        interface.index = exists ? link->index : 0;
        SetRunning(interface, exists && link->running, events);
        std::vector<Address> own;
        std::copy_if(addresses.begin(), addresses.end(), std::back_inserter(own), [&](const Address& address) {
            return exists && address.link == interface.index && address.global;
        });
        SetReach(interface, std::move(own), HasRouter(interface.index), events);
    }
    return events;
}

WanInterfaces::Events WanInterfaces::State() const {
    Events events;
    for (const Interface& interface : interfaces) {
        events.push_back(interface.running ? interface.connected : interface.disconnected);
        events.push_back(interface.ReachesOut() ? interface.gained : interface.lost);
    }
    return events;
}

bool WanInterfaces::IsNew(const Link& link) const {
    return std::any_of(std::begin(interfaces), std::end(interfaces), [&](const Interface& interface) {
        return interface.name == link.name && interface.index != link.index;
    });
}

std::string WanInterfaces::OwnerOf(const std::string& address) const {
    for (const Interface& interface : interfaces) {
        for (const Address& own : interface.addresses) {
            if (own.address.Text() == address)
                return interface.name;
        }
    }
    return {};
}

} // namespace GatewayApp
