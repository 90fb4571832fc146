// SPDX-License-Identifier: Apache-2.0
#include "RouteKeeper.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

namespace OrvSourceRoutes {

using OrvNetlink::Route;
using OrvNetlink::Rule;

namespace {

constexpr int kLogInfo = 2;

template <typename Item, typename Read>
std::vector<Item> DumpOf(OrvNetlink::Socket& requests, std::uint16_t type, Read read) {
    std::vector<Item> items;
    requests.Dump(type, AF_INET, [&](const nlmsghdr& message) {
        if (std::optional<Item> item = read(message))
            items.push_back(std::move(*item));
    });
    return items;
}

std::string Describe(const Route& route) {
    const std::string target =
        route.IsDefault() ? "default" : route.destination.Text() + "/" + std::to_string(route.prefixLength);
    const std::string via = route.gateway ? " via " + route.gateway.Text() : std::string();
    return "route " + target + via + " in table " + std::to_string(route.table);
}

std::string Describe(const Rule& rule) {
    return "rule oif " + rule.interface + " lookup " + std::to_string(rule.table);
}

/// The kernel's setting; 0 when there is none.
int ReversePathFilter(const std::string& interface) {
    int value = 0;
    std::ifstream("/proc/sys/net/ipv4/conf/" + interface + "/rp_filter") >> value;
    return value;
}

} // namespace

Snapshot ReadSnapshot(OrvNetlink::Socket& requests) {
    Snapshot snapshot;
    snapshot.links = DumpOf<OrvNetlink::Link>(requests, RTM_GETLINK, OrvNetlink::ReadLink);
    snapshot.addresses = DumpOf<OrvNetlink::Address>(requests, RTM_GETADDR, OrvNetlink::ReadAddress);
    snapshot.routes = DumpOf<Route>(requests, RTM_GETROUTE, OrvNetlink::ReadRoute);
    snapshot.rules = DumpOf<Rule>(requests, RTM_GETRULE, OrvNetlink::ReadRule);
    return snapshot;
}

RouteKeeper::RouteKeeper(std::vector<InterfaceTable> tables)
    : planner(std::move(tables)), logger("OrvSourceRoutes", kLogInfo) {}

bool RouteKeeper::Refresh() {
    const Snapshot snapshot = ReadSnapshot(requests);
    const Plan plan = planner.Decide(snapshot);
    const bool done = Apply(Difference(snapshot, plan));
    if (done) {
        lastFailure.clear();
        Report(plan);
    }
    return done;
}

void RouteKeeper::Withdraw() {
    Apply(Difference(ReadSnapshot(requests), Plan{}));
}

bool RouteKeeper::Apply(const Changes& changes) {
    alignas(nlmsghdr) char room[OrvNetlink::kMessageRoom];
    bool done = true;
    // A rule stands only while its table is filled.
    for (const Rule& rule : changes.rulesToRemove)
        done &= Carry(OrvNetlink::WriteRule(room, RTM_DELRULE, 0, rule), "remove " + Describe(rule), ENOENT);
    for (const Route& route : changes.routesToRemove)
        done &= Carry(OrvNetlink::WriteRoute(room, RTM_DELROUTE, 0, route), "remove " + Describe(route), ESRCH);
    for (const Changes::Addition& addition : changes.routesToAdd) {
        const std::uint16_t how = addition.replaces ? NLM_F_REPLACE : NLM_F_EXCL;
        const std::uint16_t flags = static_cast<std::uint16_t>(NLM_F_CREATE | how);
        done &= Carry(OrvNetlink::WriteRoute(room, RTM_NEWROUTE, flags, addition.route),
                      "add " + Describe(addition.route), 0);
    }
    for (const Rule& rule : changes.rulesToAdd)
        done &= Carry(OrvNetlink::WriteRule(room, RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, rule),
                      "add " + Describe(rule), 0);
    return done;
}

bool RouteKeeper::Carry(nlmsghdr& message, const std::string& what, int harmless) {
    const std::error_code verdict = requests.Request(message);
    if (!verdict || verdict.value() == harmless)
        return true;
    if (verdict.value() == EPERM)
        throw std::system_error(verdict, "cannot " + what + " (run it as root or with CAP_NET_ADMIN)");
    const std::string failure = "cannot " + what + ": " + verdict.message();
    if (failure != lastFailure) {
        lastFailure = failure;
        logger.Warning() << failure
                         << (verdict.value() == EEXIST ? "; another program's entry stands there, give the interface "
                                                         "another table with --interface NAME=TABLE"
                                                       : "; trying again");
    }
    return false;
}

void RouteKeeper::Report(const Plan& plan) {
    for (const auto& [interface, reason] : plan.reasons) {
        std::string& last = reported[interface];
        if (last == reason)
            continue;
        last = reason;
        logger.Info() << interface << ": " << reason;
        CheckReversePathFilter(interface);
    }
}

void RouteKeeper::CheckReversePathFilter(const std::string& interface) {
    const int strict = 1;
    if (std::max(ReversePathFilter("all"), ReversePathFilter(interface)) == strict)
        logger.Warning() << interface << ": net.ipv4.conf.*.rp_filter is 1 (strict): the kernel drops the answers to "
                         << "bound connections while another interface has the default route; set it to 2 or 0";
}

} // namespace OrvSourceRoutes
