// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "gateway/KernelMessages.h"
#include "sim/Descriptors.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace OrvLab {

class ScriptedKernel;

/// A socket of the routing family.
class NetlinkSocket final : public OpenFile {
public:
    explicit NetlinkSocket(ScriptedKernel& its) : kernel(its) {}

    short Ready() const override;
    long Receive(void* buffer, std::size_t size) override;
    long Send(const void* buffer, std::size_t size) override;
    bool HasNews() const { return !queue.empty() || overrun; }

    unsigned groups = 0;

private:
    friend class ScriptedKernel;
    struct Dump {
        std::uint16_t type;
        int family;
        std::uint32_t sequence;
        std::uint64_t generation;
        std::size_t position;
    };
    void Continue();

    ScriptedKernel& kernel;
    std::deque<std::string> queue;
    bool overrun = false;
    std::optional<Dump> dump;
};

/// The kernel's links, addresses, routes and rules. Each change is told to the sockets that listen, unless their
/// queues are full; some things the kernel does without a word. A dump is answered in parts, and what changes between
/// two of them interrupts it.
class ScriptedKernel {
public:
    ScriptedKernel(Simulation& simulation, std::uint64_t seed);

    std::shared_ptr<NetlinkSocket> Open();

    /// @name What happens
    /// @{
    KernelLink* Link(const std::string& name);
    const KernelLink* Link(const std::string& name) const;
    void AddLink(const std::string& name, bool pointToPoint);
    void RemoveLink(const std::string& name);
    void RenameLink(const std::string& name, const std::string& to);
    void SetUp(const std::string& name, bool up);
    void SetCarrier(const std::string& name, bool carrier);
    /// The same address again is another state of it.
    void PutAddress(const KernelAddress& address);
    void RemoveAddress(const KernelAddress& address);
    bool PutRoute(const KernelRoute& route);
    void RemoveRoute(const KernelRoute& route);
    void RemoveRule(const KernelRule& rule);
    /// Those whose lifetime has long been over.
    void CollectGarbage();
    /// Something of no interest is told again, so that the queues fill.
    void Chatter();
    /// @}

    /// @name What there is
    /// @{
    const std::vector<KernelLink>& Links() const { return links; }
    const std::vector<KernelAddress>& Addresses() const { return addresses; }
    const std::vector<KernelRoute>& Routes() const { return routes; }
    const std::vector<KernelRule>& Rules() const { return rules; }
    std::uint64_t Generation() const { return generation; }
    int Requests() const { return requests; }
    bool HasSixRules() const { return sixRules; }
    bool Refuses() const { return refusals != 0; }
    /// A route over this link in IPv4's main table has named a router, or a neighbour that may be one.
    bool HasNamedRouter(unsigned link) const { return namedRouters.count(link) != 0; }
    /// @}

    /// Only what routes name now, and later ones.
    void ForgetRouters(unsigned link);

    /// From now on requests are carried out, and queues have room.
    void Heal();
    /// Told of each change that is asked for: null for one that is refused.
    std::function<void(const KernelRoute* route, const KernelRule* rule, bool removed)> onRequest;

private:
    friend class NetlinkSocket;
    void Tell(unsigned group, const std::string& message);
    static unsigned GroupOf(const KernelAddress& address);
    static unsigned GroupOf(int family, bool rule);
    void DropRoutes(const std::function<bool(const KernelRoute&)>& which, bool told);
    std::vector<std::string> All(std::uint16_t type, int family) const;
    int Handle(const nlmsghdr& request);
    int HandleRoute(const nlmsghdr& request, bool removes);
    int HandleRule(const nlmsghdr& request, bool removes);

    Simulation& sim;
    Random random;
    std::size_t room;
    unsigned refusals; // of requests, one in so many
    bool sixRules;
    std::uint64_t generation = 0;
    int requests = 0;
    unsigned lastIndex = 10;
    std::vector<KernelLink> links;
    std::vector<KernelAddress> addresses;
    std::vector<KernelRoute> routes;
    std::vector<KernelRule> rules;
    std::vector<std::weak_ptr<NetlinkSocket>> sockets;
    std::set<unsigned> namedRouters; // links
};

} // namespace OrvLab
