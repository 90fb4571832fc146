// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Planner.h"

#include <CommonUtils/Logger.h>
#include <OrvNetlink/Socket.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

namespace OrvSourceRoutes {

/// Everything that the kernel has now of what the planner looks at; nothing when it changes all the time.
/// @throws std::system_error
std::optional<Snapshot> ReadSnapshot(OrvNetlink::Socket& requests);

/// Whether the kernel has rules for IPv6: it is asked to remove one that is not there.
/// @return EAFNOSUPPORT, or EOPNOTSUPP where it has no rules at all; otherwise the verdict on that removal
/// @throws std::system_error
std::error_code AskForIpv6Rules(OrvNetlink::Socket& requests);

/// Brings the kernel's rules and routes in line with the plan. One thread.
class RouteKeeper {
public:
    using Ipv6Question = std::function<std::error_code(OrvNetlink::Socket&)>;

    /// @param question asked once, before the first route in IPv6
    explicit RouteKeeper(std::vector<InterfaceTable> tables, Ipv6Question question = AskForIpv6Rules);

    /// Looks at the kernel's state and corrects this program's entries.
    /// @return false when something could not be done and is worth another attempt
    /// @throws std::system_error when the kernel does not let this process change routes
    bool Refresh(const ConnmanView& connman = {});

    /// The interface of the best IPv4 default route, from the last Refresh on; empty when there is none.
    const std::string& Ipv4Default() const { return ipv4Default; }

    /// When the next router's lifetime is over, from the last Refresh on; nothing when none will be.
    std::optional<std::chrono::milliseconds> NextExpiry() const { return nextExpiry; }

    /// Removes everything that this program made.
    /// @return false when it could not be removed, or the kernel's state changes too fast to be seen
    bool Withdraw();

private:
    /// By their texts: whether another attempt is of use before the kernel tells of a change.
    using Failures = std::map<std::string, bool>;

    bool HasIpv6Rules();
    Failures Apply(const Changes& changes, const Snapshot& snapshot);
    void AddRoute(const Changes::Addition& addition, const Snapshot& snapshot, Failures& found);
    std::error_code Send(nlmsghdr& message, const std::string& what);
    bool ReportFailures(Failures found);
    void Report(const Plan& plan);
    void CheckReversePathFilter(const std::string& interface);

    OrvNetlink::Socket requests;
    Planner planner;
    const Ipv6Question askForIpv6Rules;
    std::optional<bool> hasIpv6Rules; // not asked yet
    std::map<std::string, std::string> reported;
    std::optional<std::chrono::milliseconds> nextExpiry;
    std::string ipv4Default;
    Failures failures; // of the last attempt: each is reported once
    CommonUtils::Logger logger;
};

} // namespace OrvSourceRoutes
