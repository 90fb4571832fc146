// SPDX-License-Identifier: Apache-2.0
#include "RouteKeeper.h"

#include "Ipv6Plan.h"
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

std::string Failure(const std::string& what, const std::error_code& verdict) {
    return "cannot " + what + ": " + verdict.message() +
           (verdict.value() == EEXIST ? "; another program's entry stands there, give the interface another table with "
                                        "--interface NAME=TABLE"
                                      : "; trying again");
}

/// What keeps this program's default route out of the main table.
std::string InTheWay(const Snapshot& snapshot) {
    std::string which = "a default route";
    for (const Route& route : snapshot.routes) {
        if (route.family != AF_INET6 || route.table != RT_TABLE_MAIN || !route.IsDefault() ||
            route.metric != IPV6_METRIC || route.protocol == OWN_PROTOCOL)
            continue;
        which = "default" + (route.gateway ? " via " + route.gateway.Text() : std::string());
        for (const OrvNetlink::Link& link : snapshot.links)
            which += link.index == route.link ? " dev " + link.name : "";
    }
    return "cannot direct IPv6 that is not bound: another program has the route \"" + which + " metric " +
           std::to_string(IPV6_METRIC) + "\" (see ip -6 route show default); give it another metric";
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

std::error_code AskForIpv6Rules(OrvNetlink::Socket& requests) {
    alignas(nlmsghdr) char room[OrvNetlink::MESSAGE_ROOM];
    Rule nobodys;
    nobodys.family = AF_INET6;
    nobodys.priority = nobodys.table = BEHIND_MAIN;
    nobodys.protocol = OWN_PROTOCOL;
    nobodys.interface = "none";
    return requests.Request(OrvNetlink::WriteRule(room, RTM_DELRULE, 0, nobodys));
}

RouteKeeper::RouteKeeper(std::vector<InterfaceTable> tables, Ipv6Question question)
    : planner(std::move(tables)), askForIpv6Rules(std::move(question)), logger("OrvSourceRoutes", OrvLog::INFO) {}

bool RouteKeeper::Refresh(const ConnmanView& connman) {
    std::optional<Snapshot> snapshot = ReadSnapshot(requests);
    if (!snapshot)
        return ReportFailures(
            {{"cannot see the kernel's links, addresses, routes and rules: they change all the time", true}});
    snapshot->connman = connman;
    nextExpiry = planner.NextExpiry(*snapshot);
    ipv4Default = Ipv4DefaultInterface(*snapshot);
    Plan plan = planner.Decide(*snapshot);
    const bool wantsIpv6 =
        std::any_of(plan.rules.begin(), plan.rules.end(), [](const Rule& rule) { return rule.family == AF_INET6; });
    if (hasIpv6Rules == false || (wantsIpv6 && !HasIpv6Rules())) {
        LeaveOutIpv6(plan);
        nextExpiry.reset();
    }
    const bool done = ReportFailures(Apply(Difference(*snapshot, plan), *snapshot));
    if (done)
        Report(plan);
    return done;
}

bool RouteKeeper::Withdraw() {
    const std::optional<Snapshot> snapshot = ReadSnapshot(requests);
    return snapshot && ReportFailures(Apply(Difference(*snapshot, Plan{}), *snapshot));
}

/// Without them the kernel would put the routes of all tables into the main table.
bool RouteKeeper::HasIpv6Rules() {
    if (!hasIpv6Rules) {
        const int verdict = askForIpv6Rules(requests).value();
        hasIpv6Rules = verdict != EAFNOSUPPORT && verdict != EOPNOTSUPP;
        if (!*hasIpv6Rules)
            logger.Warning() << "the kernel has no rules for IPv6 (CONFIG_IPV6_MULTIPLE_TABLES): IPv6 is left out";
    }
    return *hasIpv6Rules;
}

RouteKeeper::Failures RouteKeeper::Apply(const Changes& changes, const Snapshot& snapshot) {
    alignas(nlmsghdr) char room[OrvNetlink::MESSAGE_ROOM];
    Failures found;
    const auto send = [&](nlmsghdr& message, const std::string& what, int harmless) {
        const std::error_code verdict = Send(message, what);
        if (verdict && verdict.value() != harmless)
            found[Failure(what, verdict)] = true;
    };
    // A rule stands only while its table is filled.
    for (const Rule& rule : changes.rulesToRemove)
        send(OrvNetlink::WriteRule(room, RTM_DELRULE, 0, rule), "remove " + Describe(rule), ENOENT);
    for (const Route& route : changes.routesToRemove)
        send(OrvNetlink::WriteRoute(room, RTM_DELROUTE, 0, route), "remove " + Describe(route), ESRCH);
    for (const Changes::Addition& addition : changes.routesToAdd)
        AddRoute(addition, snapshot, found);
    for (const Rule& rule : changes.rulesToAdd)
        send(OrvNetlink::WriteRule(room, RTM_NEWRULE, NLM_F_CREATE | NLM_F_EXCL, rule), "add " + Describe(rule), 0);
    return found;
}

void RouteKeeper::AddRoute(const Changes::Addition& addition, const Snapshot& snapshot, Failures& found) {
    alignas(nlmsghdr) char room[OrvNetlink::MESSAGE_ROOM];
    const std::string what = "add " + Describe(addition.route);
    const std::uint16_t how = addition.replaces ? NLM_F_REPLACE : NLM_F_EXCL;
    const auto flags = static_cast<std::uint16_t>(NLM_F_CREATE | how);
    const std::error_code verdict = Send(OrvNetlink::WriteRoute(room, RTM_NEWROUTE, flags, addition.route), what);
    const bool othersStands = verdict.value() == EEXIST && addition.route.table == RT_TABLE_MAIN;
    if (othersStands && addition.route.IsDefault())
        found[InTheWay(snapshot)] = false; // the kernel tells when that one goes
    else if (othersStands)
        return; // the way to a name server is that program's affair
    else if (verdict)
        found[Failure(what, verdict)] = true;
}

std::error_code RouteKeeper::Send(nlmsghdr& message, const std::string& what) {
    const std::error_code verdict = requests.Request(message);
    if (verdict.value() == EPERM)
        throw std::system_error(verdict, "cannot " + what + " (run it as root or with CAP_NET_ADMIN)");
    return verdict;
}

/// @return true when no other attempt is needed
bool RouteKeeper::ReportFailures(Failures found) {
    for (const auto& [failure, again] : found) {
        if (failures.count(failure) == 0)
            logger.Warning() << failure;
    }
    const bool done = std::none_of(found.begin(), found.end(), [](const auto& failure) { return failure.second; });
    const bool better = std::any_of(failures.begin(), failures.end(),
                                    [&](const auto& failure) { return found.count(failure.first) == 0; });
    if (done && better)
        reported.clear(); // so that the log says how it is now
    failures = std::move(found);
    return done;
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
