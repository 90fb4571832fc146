// SPDX-License-Identifier: Apache-2.0
#include "connman/PendingOrders.h"

#include <algorithm>

namespace OrvPlatform {

void PendingOrders::OrderTop(const std::string& interfaceName) {
    Add(true, interfaceName, {});
}

void PendingOrders::OrderServers(const std::string& interfaceName, const std::vector<std::string>& servers) {
    Add(false, interfaceName, servers);
}

void PendingOrders::Add(bool isTop, const std::string& interfaceName, const std::vector<std::string>& servers) {
    const auto same = [&](const Order& order) {
        return order.isTop == isTop && (isTop || order.interfaceName == interfaceName);
    };
    const auto found = std::find_if(orders.begin(), orders.end(), same);
    if (found != orders.end() && found->interfaceName == interfaceName && found->servers == servers) {
        found->resting = false;
        return;
    }
    if (found != orders.end())
        orders.erase(found);
    orders.push_back({++lastId, isTop, interfaceName, servers, false, {}});
}

bool PendingOrders::HasTop() const {
    return std::any_of(orders.begin(), orders.end(), [](const Order& order) { return order.isTop; });
}

bool PendingOrders::HasServersFor(const std::string& interfaceName) const {
    return std::any_of(orders.begin(), orders.end(),
                       [&](const Order& order) { return !order.isTop && order.interfaceName == interfaceName; });
}

ConnmanCall PendingOrders::Next(const ConnmanServices& services, std::vector<std::string>& messages) {
    const auto fulfilled = [&](const Order& order) { return IsFulfilled(order, services); };
    orders.erase(std::remove_if(orders.begin(), orders.end(), fulfilled), orders.end());

    for (Order& order : orders) {
        if (order.resting)
            continue;
        const ConnmanService* service = services.Of(order.interfaceName);
        const std::string obstacle = Obstacle(order, service);
        if (!obstacle.empty()) {
            std::string message = FailureMessage(order, obstacle);
            if (!message.empty())
                messages.push_back(std::move(message));
            continue;
        }
        const auto kind = order.isTop ? ConnmanCall::Kind::MOVE : ConnmanCall::Kind::SET_SERVERS;
        const std::string before = order.isTop ? services.First()->path : std::string();
        return {kind, order.id, order.interfaceName, service->path, before, order.servers};
    }
    return {};
}

bool PendingOrders::IsFulfilled(const Order& order, const ConnmanServices& services) {
    if (order.isTop)
        return services.TopInterface() == order.interfaceName;
    const ConnmanService* service = services.Of(order.interfaceName);
    return service && service->HasServers(order.servers);
}

std::string PendingOrders::Obstacle(const Order& order, const ConnmanService* service) {
    if (!service)
        return "there is no service on this interface (cable or modem out?)";
    // ConnMan would obey, and leave the gateway without a default route.
    if (order.isTop && !service->Connected())
        return "its service is not connected, state \"" + service->state + "\"";
    if (!order.isTop && service->immutable)
        return "its service comes from a provisioning file, which fixes the name servers";
    return {};
}

void PendingOrders::Done(const ConnmanCall& call) {
    const auto isMeant = [&](const Order& order) { return order.id == call.order; };
    orders.erase(std::remove_if(orders.begin(), orders.end(), isMeant), orders.end());
}

std::string PendingOrders::Refused(const ConnmanCall& call, const std::string& reason) {
    const auto isMeant = [&](const Order& order) { return order.id == call.order; };
    const auto found = std::find_if(orders.begin(), orders.end(), isMeant);
    if (found == orders.end())
        return {};
    found->resting = true;
    return FailureMessage(*found, reason);
}

void PendingOrders::Retry() {
    for (Order& order : orders)
        order.resting = false;
}

std::string PendingOrders::FailureMessage(Order& order, const std::string& reason) {
    if (order.remarked == reason)
        return {};
    order.remarked = reason;
    return "cannot " +
           (order.isTop ? "put " + order.interfaceName + " on top" : "set name servers of " + order.interfaceName) +
           " now: " + reason;
}

} // namespace OrvPlatform
