// SPDX-License-Identifier: Apache-2.0
#include "gateway/ScriptedKernel.h"

#include <linux/rtnetlink.h>
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace OrvLab {

namespace {

constexpr unsigned Bit(unsigned group) {
    return 1U << (group - 1);
}

template <typename All, typename Which>
auto FindIn(All& all, Which which) {
    return std::find_if(all.begin(), all.end(), which);
}

bool NamesRouter(const KernelRoute& route) {
    return route.family == AF_INET && route.table == RT_TABLE_MAIN && (!route.gateway.empty() || route.length == 32);
}

} // namespace

short NetlinkSocket::Ready() const {
    return static_cast<short>(POLLOUT | (HasNews() ? POLLIN : 0) | (overrun ? POLLERR : 0));
}

long NetlinkSocket::Receive(void* buffer, std::size_t size) {
    if (overrun) {
        overrun = false;
        errno = ENOBUFS;
        return -1;
    }
    if (queue.empty() && dump)
        Continue();
    if (queue.empty()) {
        if (groups == 0)
            kernel.sim.Fail("waits for the kernel's answer, and has asked nothing");
        errno = EAGAIN;
        return -1;
    }
    const std::string message = std::move(queue.front());
    queue.pop_front();
    if (message.size() > size)
        kernel.sim.Fail("has no room for a message of the kernel");
    std::memcpy(buffer, message.data(), message.size());
    return static_cast<long>(message.size());
}

long NetlinkSocket::Send(const void* buffer, std::size_t size) {
    const auto& request = *static_cast<const nlmsghdr*>(buffer);
    ++kernel.requests;
    // What is left of an earlier question is somebody else's answer.
    if (kernel.random.OneIn(20)) {
        std::string late = EndOf();
        HeaderOf(late).nlmsg_seq = request.nlmsg_seq - 1;
        queue.push_back(late);
    }
    if ((request.nlmsg_flags & NLM_F_DUMP) == NLM_F_DUMP) {
        const int family = *(static_cast<const unsigned char*>(buffer) + NLMSG_HDRLEN);
        dump = Dump{request.nlmsg_type, family, request.nlmsg_seq, kernel.generation, 0};
        Continue();
        return static_cast<long>(size);
    }
    std::string verdict = VerdictOf(kernel.Handle(request));
    HeaderOf(verdict).nlmsg_seq = request.nlmsg_seq;
    queue.push_back(verdict);
    return static_cast<long>(size);
}

void NetlinkSocket::Continue() {
    const std::vector<std::string> all = kernel.All(dump->type, dump->family);
    std::string part;
    const auto put = [&](std::string message) {
        HeaderOf(message).nlmsg_seq = dump->sequence;
        // Only the first message behind a change says so.
        const bool interrupted = std::exchange(dump->generation, kernel.generation) != kernel.generation;
        HeaderOf(message).nlmsg_flags = static_cast<std::uint16_t>(NLM_F_MULTI | (interrupted ? NLM_F_DUMP_INTR : 0));
        part += message;
        part.append((4 - part.size() % 4) % 4, '\0');
    };
    for (std::size_t count = 1 + kernel.random.Below(6); count > 0 && dump->position < all.size(); --count)
        put(all[dump->position++]);
    const bool ends = dump->position >= all.size() && (part.empty() || kernel.random.OneIn(2));
    if (ends)
        put(EndOf());
    queue.push_back(part);
    if (ends)
        dump.reset();
}

ScriptedKernel::ScriptedKernel(Simulation& simulation, std::uint64_t seed)
    : sim(simulation),
      random(seed),
      room(random.OneIn(2) ? 1 + random.Below(6) : 1000),
      refusals(random.OneIn(4) ? 5 : 0),
      sixRules(!random.OneIn(8)) {
    links.push_back({1, "lo", true, true, false});
    addresses.push_back({1, "127.0.0.1", 8});
    links.push_back({9, "lan0", true, true, false});
    addresses.push_back({9, "10.9.0.1", 24});
    routes.push_back({AF_INET, RT_TABLE_MAIN, RTPROT_KERNEL, 9, false, "10.9.0.0", 24, "", "10.9.0.1"});
}

std::shared_ptr<NetlinkSocket> ScriptedKernel::Open() {
    auto socket = std::make_shared<NetlinkSocket>(*this);
    sockets.push_back(socket);
    return socket;
}

void ScriptedKernel::Heal() {
    room = 1000;
    refusals = 0;
}

void ScriptedKernel::Tell(unsigned group, const std::string& message) {
    ++generation;
    for (const auto& one : sockets) {
        const auto socket = one.lock();
        if (!socket || (socket->groups & group) == 0)
            continue;
        if (socket->queue.size() >= room)
            socket->overrun = true;
        else
            socket->queue.push_back(message);
    }
}

unsigned ScriptedKernel::GroupOf(const KernelAddress& address) {
    return Bit(address.IsSix() ? RTNLGRP_IPV6_IFADDR : RTNLGRP_IPV4_IFADDR);
}

unsigned ScriptedKernel::GroupOf(int family, bool rule) {
    const bool six = family == AF_INET6;
    return rule ? Bit(six ? RTNLGRP_IPV6_RULE : RTNLGRP_IPV4_RULE) : Bit(six ? RTNLGRP_IPV6_ROUTE : RTNLGRP_IPV4_ROUTE);
}

KernelLink* ScriptedKernel::Link(const std::string& name) {
    const auto found = FindIn(links, [&](const KernelLink& one) { return one.name == name; });
    return found == links.end() ? nullptr : &*found;
}

const KernelLink* ScriptedKernel::Link(const std::string& name) const {
    return const_cast<ScriptedKernel*>(this)->Link(name);
}

void ScriptedKernel::AddLink(const std::string& name, bool pointToPoint) {
    if (Link(name) != nullptr)
        return;
    links.push_back({++lastIndex, name, true, true, pointToPoint});
    sim.Trace("    kernel: " + name + " comes");
    Tell(Bit(RTNLGRP_LINK), MessageOf(links.back(), false));
}

/// Without a word, or with one for each.
void ScriptedKernel::DropRoutes(const std::function<bool(const KernelRoute&)>& which, bool told) {
    for (auto route = FindIn(routes, which); route != routes.end(); route = FindIn(routes, which)) {
        const KernelRoute gone = *route;
        routes.erase(route);
        ++generation;
        if (told)
            Tell(GroupOf(gone.family, false), MessageOf(gone, true, sim.Now()));
    }
}

void ScriptedKernel::RemoveLink(const std::string& name) {
    const KernelLink* const found = Link(name);
    if (found == nullptr)
        return;
    KernelLink gone = *found;
    SetUp(name, false);
    const auto isOn = [&](const KernelAddress& one) { return one.link == gone.index; };
    for (auto own = FindIn(addresses, isOn); own != addresses.end(); own = FindIn(addresses, isOn))
        RemoveAddress(KernelAddress(*own));
    links.erase(FindIn(links, [&](const KernelLink& one) { return one.name == name; }));
    sim.Trace("    kernel: " + name + " goes");
    gone.up = false;
    Tell(Bit(RTNLGRP_LINK), MessageOf(gone, true));
}

void ScriptedKernel::RenameLink(const std::string& name, const std::string& to) {
    KernelLink* const found = Link(name);
    if (found == nullptr || Link(to) != nullptr)
        return;
    found->name = to;
    sim.Trace("    kernel: " + name + " becomes " + to);
    Tell(Bit(RTNLGRP_LINK), MessageOf(*found, false));
    for (const KernelAddress& own : addresses)
        if (own.link == found->index && !own.IsSix()) // IPv4's bear the link's name
            Tell(GroupOf(own), MessageOf(own, false));
}

void ScriptedKernel::SetUp(const std::string& name, bool up) {
    KernelLink* const link = Link(name);
    if (link == nullptr || link->up == up)
        return;
    link->up = up;
    const unsigned index = link->index;
    sim.Trace("    kernel: " + name + (up ? " up" : " down"));
    if (!up) {
        const auto isSix = [&](const KernelAddress& one) { return one.link == index && one.IsSix(); };
        for (auto own = FindIn(addresses, isSix); own != addresses.end(); own = FindIn(addresses, isSix))
            RemoveAddress(KernelAddress(*own));
        DropRoutes([&](const KernelRoute& route) { return route.link == index && route.family == AF_INET; }, false);
        DropRoutes([&](const KernelRoute& route) { return route.link == index; }, random.OneIn(2));
    }
    Tell(Bit(RTNLGRP_LINK), MessageOf(*Link(name), false));
}

void ScriptedKernel::SetCarrier(const std::string& name, bool carrier) {
    KernelLink* const link = Link(name);
    if (link == nullptr || link->carrier == carrier)
        return;
    link->carrier = carrier;
    sim.Trace("    kernel: " + name + (carrier ? " has a carrier" : " has no carrier"));
    Tell(Bit(RTNLGRP_LINK), MessageOf(*link, false));
}

void ScriptedKernel::PutAddress(const KernelAddress& address) {
    const auto known = FindIn(addresses, [&](const KernelAddress& one) { return one == address; });
    if (known == addresses.end())
        addresses.push_back(address);
    else
        *known = address;
    sim.Trace("    kernel: address " + address.text + " on link " + std::to_string(address.link) +
              (address.tentative ? ", tentative" : "") + (address.duplicate ? ", duplicate" : ""));
    Tell(GroupOf(address), MessageOf(address, false));
}

void ScriptedKernel::RemoveAddress(const KernelAddress& address) {
    const auto known = FindIn(addresses, [&](const KernelAddress& one) { return one == address; });
    if (known == addresses.end())
        return;
    const KernelAddress gone = *known;
    addresses.erase(known);
    sim.Trace("    kernel: address " + gone.text + " goes");
    DropRoutes([&](const KernelRoute& route) { return route.link == gone.link && route.source == gone.text; },
               random.OneIn(2));
    Tell(GroupOf(gone), MessageOf(gone, true));
}

void ScriptedKernel::ForgetRouters(unsigned link) {
    namedRouters.erase(link);
    if (std::any_of(routes.begin(), routes.end(),
                    [link](const KernelRoute& route) { return route.link == link && NamesRouter(route); }))
        namedRouters.insert(link);
}

bool ScriptedKernel::PutRoute(const KernelRoute& route) {
    if (NamesRouter(route))
        namedRouters.insert(route.link);
    const auto known = FindIn(routes, [&](const KernelRoute& one) { return one.SamePlace(route); });
    if (known != routes.end() && !(*known == route))
        return false;
    sim.Trace("    kernel: route " + route.Text());
    if (known == routes.end()) {
        routes.push_back(route);
        Tell(GroupOf(route.family, false), MessageOf(route, false, sim.Now()));
    } else { // that a lifetime begins anew is not told
        known->expires = route.expires;
        ++generation;
    }
    return true;
}

void ScriptedKernel::RemoveRoute(const KernelRoute& route) {
    sim.Trace("    kernel: no route " + route.Text());
    DropRoutes([&](const KernelRoute& one) { return one == route; }, true);
}

void ScriptedKernel::RemoveRule(const KernelRule& rule) {
    const auto known = std::find(rules.begin(), rules.end(), rule);
    if (known == rules.end())
        return;
    const KernelRule gone = *known;
    rules.erase(known);
    sim.Trace("    kernel: no rule " + gone.Text());
    Tell(GroupOf(gone.family, true), MessageOf(gone, true));
}

void ScriptedKernel::CollectGarbage() {
    const Time now = sim.Now();
    DropRoutes([&](const KernelRoute& route) { return route.expires <= now; }, true);
}

void ScriptedKernel::Chatter() {
    Tell(Bit(RTNLGRP_IPV4_IFADDR), MessageOf(addresses.front(), false));
    Tell(Bit(RTNLGRP_LINK), MessageOf(links.front(), false));
}

std::vector<std::string> ScriptedKernel::All(std::uint16_t type, int family) const {
    std::vector<std::string> all;
    const auto fits = [family](int one) { return family == AF_UNSPEC || family == one; };
    if (type == RTM_GETLINK)
        for (const KernelLink& link : links)
            all.push_back(MessageOf(link, false));
    if (type == RTM_GETADDR)
        for (const KernelAddress& address : addresses)
            if (fits(address.IsSix() ? AF_INET6 : AF_INET))
                all.push_back(MessageOf(address, false));
    if (type == RTM_GETROUTE)
        for (const KernelRoute& route : routes)
            if (fits(route.family))
                all.push_back(MessageOf(route, false, sim.Now()));
    if (type == RTM_GETRULE)
        for (const KernelRule& rule : rules)
            if (fits(rule.family))
                all.push_back(MessageOf(rule, false));
    return all;
}

int ScriptedKernel::Handle(const nlmsghdr& request) {
    const bool ofRules = request.nlmsg_type == RTM_NEWRULE || request.nlmsg_type == RTM_DELRULE;
    if (ofRules && !sixRules && RuleOf(request) && RuleOf(request)->family == AF_INET6)
        return EAFNOSUPPORT;
    if (random.OneIn(refusals))
        return ENOBUFS;
    switch (request.nlmsg_type) {
    case RTM_NEWROUTE:
    case RTM_DELROUTE:
        return HandleRoute(request, request.nlmsg_type == RTM_DELROUTE);
    case RTM_NEWRULE:
    case RTM_DELRULE:
        return HandleRule(request, request.nlmsg_type == RTM_DELRULE);
    default:
        return EOPNOTSUPP;
    }
}

int ScriptedKernel::HandleRoute(const nlmsghdr& request, bool removes) {
    const std::optional<KernelRoute> route = RouteOf(request);
    if (!route)
        return EINVAL;
    if (onRequest)
        onRequest(&*route, nullptr, removes);
    if (removes) {
        if (std::find(routes.begin(), routes.end(), *route) == routes.end())
            return ESRCH;
        RemoveRoute(*route);
        return 0;
    }
    const auto link = FindIn(links, [&](const KernelLink& one) { return one.index == route->link; });
    if (!route->unreachable && link == links.end())
        return ENODEV;
    if (!route->unreachable && !link->up)
        return ENETDOWN;
    const auto isSource = [&](const KernelAddress& one) { return one.text == route->source; };
    if (!route->source.empty() && std::none_of(addresses.begin(), addresses.end(), isSource))
        return EINVAL;
    const auto known = FindIn(routes, [&](const KernelRoute& one) { return one.SamePlace(*route); });
    if (known != routes.end() && (request.nlmsg_flags & NLM_F_EXCL) != 0)
        return EEXIST;
    if (known != routes.end()) {
        if ((request.nlmsg_flags & NLM_F_REPLACE) == 0)
            return EEXIST;
        *known = *route;
        sim.Trace("    kernel: instead route " + route->Text());
        Tell(GroupOf(route->family, false), MessageOf(*route, false, sim.Now()));
        return 0;
    }
    PutRoute(*route);
    return 0;
}

int ScriptedKernel::HandleRule(const nlmsghdr& request, bool removes) {
    const std::optional<KernelRule> rule = RuleOf(request);
    if (!rule)
        return EINVAL;
    if (onRequest)
        onRequest(nullptr, &*rule, removes);
    const auto known = std::find(rules.begin(), rules.end(), *rule);
    if (removes) {
        if (known == rules.end())
            return ENOENT;
        RemoveRule(*rule);
        return 0;
    }
    if (known != rules.end())
        return EEXIST;
    rules.push_back(*rule);
    sim.Trace("    kernel: rule " + rule->Text());
    Tell(GroupOf(rule->family, true), MessageOf(*rule, false));
    return 0;
}

} // namespace OrvLab
