// SPDX-License-Identifier: Apache-2.0
#include "ConnmanDefault.h"
#include "Options.h"
#include "RouteKeeper.h"
#include "log/LogLevel.h"
#include "signals/Signals.h"

#include <CommonUtils/Logger.h>
#include <GatewayMainBaseUnits/IpInterfacesMapping.h>
#include <config/GatewayConfig.h>
#include <linux/rtnetlink.h>
#include <poll.h>

#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <utility>

namespace {

using namespace OrvSourceRoutes;

constexpr char USAGE[] =
    R"(orv-source-routes [--interface NAME=TABLE]...
  Keeps a route for connections that are bound to a WAN interface, whichever interface has the default route.
  --interface NAME=TABLE  an interface and the routing table that is its own; repeat it for each interface.
                          Without it: the gateway configuration's Ethernet in 1011, Cellular in 1012.
  --help                  this text
Runs until SIGTERM or SIGINT and then removes what it made. Needs CAP_NET_ADMIN.
)";
constexpr int RETRY_MS = 1000;

/// A wrong command line; the text says what to write instead.
struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

std::vector<InterfaceTable> ConfiguredTables() {
    const auto& mapping = GatewayMainBaseUnits::IpInterfacesMapping::GetInstance();
    return {{mapping.GetInterfaceName("Ethernet"), 1011}, {mapping.GetInterfaceName("Cellular"), 1012}};
}

std::vector<InterfaceTable> ParseArguments(int argc, char** argv) {
    std::vector<InterfaceTable> tables;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        if (std::strcmp(argv[i], "--interface") != 0 || !hasValue)
            throw UsageError(std::string("unexpected '") + argv[i] + "'; see --help");
        const std::optional<InterfaceTable> entry = ParseInterfaceTable(argv[++i]);
        if (!entry)
            throw UsageError(std::string("'") + argv[i] +
                             "' is not NAME=TABLE with a table from 1 to 252 or 256 to 32765, e.g. eth0=1011");
        tables.push_back(*entry);
    }
    if (tables.empty())
        tables = ConfiguredTables();
    const std::string problem = ProblemWith(tables);
    if (!problem.empty())
        throw UsageError(problem);
    return tables;
}

/// @return false when something of its own may be left in the kernel
bool Run(std::vector<InterfaceTable> tables) {
    OrvSignals::Block({SIGTERM, SIGINT});
    const OrvSignals::Signals signals({SIGTERM, SIGINT});
    // Opened before the first look, so that nothing is missed between the two.
    OrvNetlink::Socket notifications(RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV4_ROUTE | RTMGRP_IPV6_IFADDR |
                                     RTMGRP_IPV6_ROUTE | (1U << (RTNLGRP_IPV4_RULE - 1)) |
                                     (1U << (RTNLGRP_IPV6_RULE - 1)));
    RouteKeeper keeper(std::move(tables));
    ConnmanDefault connman(
        OrvPlatform::MessageBus::Address(OrvPlatform::LoadGatewayConfig().config.connman.busAddress));
    for (std::string ipv4Default;;) {
        const bool done = keeper.Refresh(connman.View());
        if (std::exchange(ipv4Default, keeper.Ipv4Default()) != keeper.Ipv4Default())
            connman.AskAgain();
        pollfd waiting[] = {{signals.Descriptor(), POLLIN, 0},
                            {notifications.Descriptor(), POLLIN, 0},
                            {connman.Descriptor(), POLLIN, 0}};
        // Nobody tells that a router's lifetime is over, nor that it has been renewed.
        const int untilNews = keeper.NextExpiry() ? static_cast<int>(keeper.NextExpiry()->count()) : -1;
        poll(waiting, 3, done ? untilNews : RETRY_MS);
        if (waiting[0].revents != 0)
            break;
        connman.TakeChanged();
        // Only a hint: the kernel drops some routes without a word, so the whole state is read anew.
        static_cast<void>(notifications.ReadNotifications([](const nlmsghdr&) {}));
    }
    return keeper.Withdraw();
}

} // namespace

int main(int argc, char** argv) {
    CommonUtils::Logger logger("OrvSourceRoutes", OrvLog::INFO);
    try {
        if (argc == 2 && std::strcmp(argv[1], "--help") == 0) {
            std::fputs(USAGE, stdout);
            return 0;
        }
        const bool gone = Run(ParseArguments(argc, argv));
        if (gone)
            logger.Info() << "ended, its routes and rules are removed";
        else
            logger.Warning() << "ended, but some of its routes and rules may be left; see ip rule";
        return gone ? 0 : 1;
    } catch (const UsageError& error) {
        std::fprintf(stderr, "orv-source-routes: %s\n", error.what());
        return 2;
    } catch (const std::exception& error) {
        logger.Error() << "ends: " << error.what();
        return 1;
    }
}
