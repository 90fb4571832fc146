// SPDX-License-Identifier: Apache-2.0
#include "RouteKeeper.h"

#include "log/LogLevel.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

namespace OrvSourceRoutes {

using OrvNetlink::Route;
using OrvNetlink::Rule;

namespace {

/// @return false when the kernel's state changes all the time
template <typename Item, typename Read>
bool Fill(std::vector<Item>& items, OrvNetlink::Socket& requests, std::uint16_t type, Read read) {
    return requests.Dump(type, AF_UNSPEC, [&](const nlmsghdr& message) {
        if (std::optional<Item> item = read(message))
            items.push_back(std::move(*item));
    });
}

std::string Describe(const Route& route) {
    const std::string target =
        route.IsDefault() ? "default" : route.destination.Text() + "/" + std::to_string(route.prefixLength);
    const std::string kind = route.IsUnreachable() ? "unreachable " : "";
    const std::string via = route.gateway ? " via " + route.gateway.Text() : std::string();
    return "route " + kind + target + via + " in table " + std::to_string(route.table);
}

std::string Describe(const Rule& rule) {
    const std::string length =
        rule.prefixLength == rule.source.Bits() ? std::string() : "/" + std::to_string(rule.prefixLength);
    const std::string what = rule.interface.empty() ? "from " + rule.source.Text() + length : "oif " + rule.interface;
    return (rule.family == AF_INET6 ? "IPv6 rule " : "rule ") + what + " lookup " + std::to_string(rule.table);
}

std::optional<std::chrono::milliseconds> FirstExpiry(const Snapshot& snapshot) {
    constexpr std::chrono::milliseconds behind(20);
    std::optional<std::chrono::milliseconds> first;
    for (const Route& route : snapshot.routes) {
        if (route.IsDefault() && route.lifetime && !route.IsOver() && (!first || *route.lifetime + behind < *first))
            first = *route.lifetime + behind;
    }
    return first;
}

/// The kernel's setting; 0 when there is none.
int ReversePathFilter(const std::string& interface) {
    int value = 0;
    std::ifstream("/proc/sys/net/ipv4/conf/" + interface + "/rp_filter") >> value;
    return value;
}

} // namespace

std::optional<Snapshot> ReadSnapshot(OrvNetlink::Socket& requests) {
    Snapshot snapshot;
    const bool whole = Fill(snapshot.links, requests, RTM_GETLINK, OrvNetlink::ReadLink) &&
                       Fill(snapshot.addresses, requests, RTM_GETADDR, OrvNetlink::ReadAddress) &&
                       Fill(snapshot.routes, requests, RTM_GETROUTE, OrvNetlink::ReadRoute) &&
                       Fill(snapshot.rules, requests, RTM_GETRULE, OrvNetlink::ReadRule);
    return whole ? std::optional<Snapshot>(std::move(snapshot)) : std::nullopt;
}

RouteKeeper::RouteKeeper(std::vector<InterfaceTable> tables)
    : planner(std::move(tables)), logger("OrvSourceRoutes", OrvLog::INFO) {}

bool RouteKeeper::Refresh(const std::string& defaultInterface) {
    std::optional<Snapshot> snapshot = ReadSnapshot(requests);
    if (!snapshot)
        return ReportFailures({"cannot see the kernel's links, addresses, routes and rules: they change all the time"});
    snapshot->defaultInterface = defaultInterface;
    nextExpiry = FirstExpiry(*snapshot);
    ipv4Default = Ipv4DefaultInterface(*snapshot);
    const Plan plan = planner.Decide(*snapshot);
    const bool done = ReportFailures(Apply(Difference(*snapshot, plan)));
    if (done)
        Report(plan);
    return done;
}

bool RouteKeeper::Withdraw() {
    const std::optional<Snapshot> snapshot = ReadSnapshot(requests);
    return snapshot && ReportFailures(Apply(Difference(*snapshot, Plan{})));
}

RouteKeeper::Failures RouteKeeper::Apply(const Changes& changes) {
    alignas(nlmsghdr) char room[OrvNetlink::MESSAGE_ROOM];
    Failures found;
    // A rule stands only while its table is filled.
    for (const Rule& rule : changes.rulesToRemove)
        found.insert(Send(OrvNetlink::WriteRule(room, RTM_DELRULE, 0, rule), "remove " + Describe(rule), ENOENT));
    for (const Route& route : changes.routesToRemove)
        found.insert(Send(OrvNetlink::WriteRoute(room, RTM_DELROUTE, 0, route), "remove " + Describe(route), ESRCH));
    for (const Changes::Addition& addition : changes.routesToAdd) {
        const std::uint16_t how = addition.replaces ? NLM_F_REPLACE : NLM_F_EXCL;
        const std::uint16_t flags = static_cast<std::uint16_t>(NLM_F_CREATE | how);
        found.insert(Send(OrvNetlink::WriteRoute(room, RTM_NEWROUTE, flags, addition.route),
                          "add " + Describe(addition.route), 0));
    }
    for (const Rule& rule : changes.rulesToAdd)
        found.insert(Send(OrvNetlink::WriteRule(room, RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, rule),
                          "add " + Describe(rule), 0));
    found.erase(std::string());
    return found;
}

/// @return what went wrong; empty when nothing did
std::string RouteKeeper::Send(nlmsghdr& message, const std::string& what, int harmless) {
    const std::error_code verdict = requests.Request(message);
    if (!verdict || verdict.value() == harmless)
        return {};
    if (verdict.value() == EPERM)
        throw std::system_error(verdict, "cannot " + what + " (run it as root or with CAP_NET_ADMIN)");
    return "cannot " + what + ": " + verdict.message() +
           (verdict.value() == EEXIST ? "; another program's entry stands there, give the interface another table with "
                                        "--interface NAME=TABLE"
                                      : "; trying again");
}

/// @return true when there are none
bool RouteKeeper::ReportFailures(Failures found) {
    for (const std::string& failure : found) {
        if (failures.count(failure) == 0)
            logger.Warning() << failure;
    }
    if (found.empty() && !failures.empty())
        reported.clear(); // so that the log says how it is now
    failures = std::move(found);
    return failures.empty();
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
