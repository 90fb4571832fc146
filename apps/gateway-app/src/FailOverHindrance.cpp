// SPDX-License-Identifier: Apache-2.0
#include "FailOverHindrance.h"

namespace GatewayApp {

using namespace std::chrono_literals;

namespace {

constexpr auto PATIENCE = 13s; // the library's delay, and what a move takes

} // namespace

std::optional<std::string> FailOverHindrance::Observe(bool isWanted, Missing missing, Time now) {
    if (!isWanted)
        said = Missing::NOTHING;
    if (!isWanted || missing == Missing::NOTHING) {
        since.reset();
        return std::nullopt;
    }
    if (!since)
        since = now;
    if (now - *since < PATIENCE || missing == said)
        return std::nullopt;
    said = missing;
    return "no fail-over to Cellular: " + Words(missing);
}

std::string FailOverHindrance::Words(Missing missing) const {
    switch (missing) {
    case Missing::NOTHING:
        break;
    case Missing::INTERFACE:
        return "there is no interface " + cellular +
               ". Is the modem there (ip link), and is that its name in [interfaces] of gateway.ini?";
    case Missing::LINK:
        return cellular + " has no link. Is the modem registered with a network (connmanctl technologies)?";
    case Missing::ADDRESS:
        return cellular + " has no address. Connect its service once (connmanctl services, connmanctl connect SERVICE)";
    case Missing::SERVICE:
        return "ConnMan has no connected service, or is not there. Look at systemctl status connman and connmanctl "
               "services";
    }
    return {};
}

} // namespace GatewayApp
