// SPDX-License-Identifier: Apache-2.0
#include "gateway/NetworkModel.h"

#include <linux/rtnetlink.h>

#include <algorithm>

namespace OrvLab {

namespace {

constexpr std::uint8_t SOURCE_ROUTES = 111;

} // namespace

bool NetworkModel::IsWayOut(const KernelRoute& route) const {
    return route.table == RT_TABLE_MAIN && route.IsDefault() && !route.unreachable && route.expires > now;
}

std::string NetworkModel::NameOf(unsigned link) const {
    for (const KernelLink& one : kernel.Links())
        if (one.index == link)
            return one.name;
    return {};
}

bool NetworkModel::Running(const std::string& name) const {
    const KernelLink* const link = kernel.Link(name);
    return link != nullptr && link->Running();
}

bool NetworkModel::HasAddress(const std::string& name) const {
    const KernelLink* const link = kernel.Link(name);
    if (link == nullptr)
        return false;
    const auto& routes = kernel.Routes();
    const bool router = std::any_of(routes.begin(), routes.end(), [&](const KernelRoute& route) {
        return route.link == link->index && route.family == AF_INET6 && IsWayOut(route);
    });
    const auto& all = kernel.Addresses();
    return std::any_of(all.begin(), all.end(), [&](const KernelAddress& own) {
        return own.link == link->index && own.IsGlobal() && !own.tentative && !own.duplicate &&
               (!own.IsSix() || router);
    });
}

std::string NetworkModel::DefaultInterface() const {
    const KernelRoute* four = nullptr;
    const KernelRoute* six = nullptr;
    for (const KernelRoute& route : kernel.Routes()) {
        if (route.table != RT_TABLE_MAIN || !route.IsDefault() || route.expires <= now)
            continue;
        const KernelRoute*& best = route.family == AF_INET ? four : six;
        if ((route.family == AF_INET6 || !route.unreachable) && (best == nullptr || route.metric < best->metric))
            best = &route;
    }
    if (six != nullptr && six->unreachable)
        six = nullptr;
    if (six != nullptr && (four == nullptr || six->protocol == SOURCE_ROUTES))
        return NameOf(six->link);
    return four == nullptr ? std::string() : NameOf(four->link);
}

std::string NetworkModel::OwnerOf(const std::string& address) const {
    for (const KernelAddress& own : kernel.Addresses())
        if (own.text == address && own.IsGlobal() && (NameOf(own.link) == "eth0" || NameOf(own.link) == "wwan0"))
            return NameOf(own.link);
    return {};
}

bool NetworkModel::HasSilentExpiry(Time since) const {
    return std::any_of(kernel.Routes().begin(), kernel.Routes().end(),
                       [&](const KernelRoute& route) { return route.expires <= now && route.expires > since; });
}

} // namespace OrvLab
