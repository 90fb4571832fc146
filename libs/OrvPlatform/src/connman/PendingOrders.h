// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "connman/ConnmanServices.h"

#include <cstdint>
#include <string>
#include <vector>

namespace OrvPlatform {

/// One call to the connection manager that brings it nearer to what is wanted.
struct ConnmanCall {
    enum class Kind { NONE, MOVE, SET_SERVERS };

    Kind kind = Kind::NONE;
    std::uint64_t order = 0;          ///< the order that it carries out, for Done and Refused
    std::string interfaceName;        ///< for log lines
    std::string path;                 ///< the service that is moved or configured
    std::string before;               ///< MOVE: the service before which it goes
    std::vector<std::string> servers; ///< SET_SERVERS
};

/// The orders that are not carried out yet. A newer order for the top priority replaces the older one, a newer DNS
/// setting the older one of the same interface. An order that cannot be carried out is kept until it can be or until it
/// is replaced; one that has been carried out is forgotten, so that nothing is ever done twice. No locks, no bus.
class PendingOrders {
public:
    void OrderTop(const std::string& interfaceName);
    void OrderServers(const std::string& interfaceName, const std::vector<std::string>& servers);

    bool HasTop() const;
    bool HasServersFor(const std::string& interfaceName) const;

    /// The next call to make. Orders that are fulfilled already are dropped on the way.
    /// @param messages gets a text for each order that has to wait, once for each order and reason
    ConnmanCall Next(const ConnmanServices& services, std::vector<std::string>& messages);

    /// The call was obeyed. Nothing happens when its order has been replaced meanwhile.
    void Done(const ConnmanCall& call);

    /// The call was refused: its order rests until Retry().
    /// @return what to log; empty when this refusal was logged before
    std::string Refused(const ConnmanCall& call, const std::string& reason);

    /// The services have changed, or the connection manager is a new one: refused orders get another chance.
    void Retry();

private:
    struct Order {
        std::uint64_t id;
        bool isTop;
        std::string interfaceName;
        std::vector<std::string> servers;
        bool resting;
        std::string remarked;
    };

    void Add(bool isTop, const std::string& interfaceName, const std::vector<std::string>& servers);
    static bool IsFulfilled(const Order& order, const ConnmanServices& services);
    static std::string Obstacle(const Order& order, const ConnmanService* service);
    static std::string FailureMessage(Order& order, const std::string& reason);

    std::vector<Order> orders; ///< in the order in which they were given
    std::uint64_t lastId = 0;
};

} // namespace OrvPlatform
