// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Netlink/Socket.h"
#include "Planner.h"

#include <CommonUtils/Logger.h>

#include <map>
#include <string>
#include <vector>

namespace OrvSourceRoutes {

/// Everything that the kernel has now of what the planner looks at.
/// @throws std::system_error
Snapshot ReadSnapshot(OrvNetlink::Socket& requests);

/// Brings the kernel's rules and routes in line with the plan. One thread.
class RouteKeeper {
public:
    explicit RouteKeeper(std::vector<InterfaceTable> tables);

    /// Looks at the kernel's state and corrects this program's entries.
    /// @return false when something could not be done and is worth another attempt
    /// @throws std::system_error when the kernel does not let this process change routes
    bool Refresh();

    /// Removes everything that this program made.
    void Withdraw();

private:
    bool Apply(const Changes& changes);
    bool Carry(nlmsghdr& message, const std::string& what, int harmless);
    void Report(const Plan& plan);
    void CheckReversePathFilter(const std::string& interface);

    OrvNetlink::Socket requests;
    Planner planner;
    std::map<std::string, std::string> reported;
    std::string lastFailure;
    CommonUtils::Logger logger;
};

} // namespace OrvSourceRoutes
