// SPDX-License-Identifier: Apache-2.0
#include "gateway/KernelWeather.h"

#include <linux/rtnetlink.h>

#include <algorithm>
#include <vector>

namespace OrvLab {

namespace {

constexpr std::uint8_t CONNMAN = RTPROT_BOOT;
constexpr std::uint8_t SOURCE_ROUTES = 111;
constexpr Time TENTATIVE = SECOND;
constexpr Time GC_INTERVAL = 20 * SECOND;

std::string Net(const std::string& name) {
    return name == "eth0" ? "192.0.2." : "203.0.113.";
}

std::string SixNet(const std::string& name) {
    return name == "eth0" ? "2001:db8:1::" : "2001:db8:2::";
}

} // namespace

void KernelWeather::Boot() {
    world.kernel.AddLink("eth0", false);
    world.kernel.AddLink("wwan0", random.OneIn(2));
    for (const char* const name : {"eth0", "wwan0"}) {
        PutFour(name, 10);
        if (random.OneIn(2))
            PutSix(name);
        if (random.OneIn(2))
            Advertise(name, NEVER);
    }
    world.kernel.PutRoute(DefaultOf("eth0", 0));
}

KernelRoute KernelWeather::DefaultOf(const std::string& name, std::uint32_t metric) const {
    KernelRoute route;
    route.link = world.kernel.Link(name)->index;
    route.protocol = CONNMAN;
    route.metric = metric;
    route.gateway = world.kernel.Link(name)->pointToPoint ? "" : Net(name) + "1";
    return route;
}

void KernelWeather::PutFour(const std::string& name, unsigned number) {
    const KernelLink* const link = world.kernel.Link(name);
    if (link == nullptr)
        return;
    const KernelAddress own{link->index, Net(name) + std::to_string(number), 24};
    world.kernel.PutAddress(own);
    if (!link->up)
        return;
    world.kernel.PutRoute(
        {AF_INET, RT_TABLE_MAIN, RTPROT_KERNEL, link->index, false, Net(name) + "0", 24, "", own.text});
    // The connection manager has a route to the router of a service that is not the default.
    if (!link->pointToPoint && random.OneIn(2))
        world.kernel.PutRoute({AF_INET, RT_TABLE_MAIN, CONNMAN, link->index, false, Net(name) + "1", 32});
}

void KernelWeather::PutSix(const std::string& name) {
    const KernelLink* const link = world.kernel.Link(name);
    if (link == nullptr || !link->up)
        return;
    KernelAddress own{link->index, SixNet(name) + (random.OneIn(3) ? "11" : "10"), 64, true};
    world.kernel.PutAddress(own);
    world.kernel.PutRoute({AF_INET6, RT_TABLE_MAIN, RTPROT_KERNEL, link->index, false, SixNet(name), 64, "", "", 256});
    world.agenda.At(world.sim.Now() + TENTATIVE, [this, own, duplicate = random.OneIn(6)]() mutable {
        for (const KernelAddress& known : world.kernel.Addresses()) {
            if (!(known == own) || !known.tentative)
                continue;
            own.tentative = duplicate;
            own.duplicate = duplicate;
            return world.kernel.PutAddress(own);
        }
    });
}

/// A router is heard: its route lives for so long from now on, and what it says of its prefix brings news.
void KernelWeather::Advertise(const std::string& name, Time lifetime) {
    const KernelLink* const link = world.kernel.Link(name);
    if (link == nullptr || !link->up)
        return;
    const std::uint32_t metric = name == "eth0" ? 1024 : 1025;
    KernelRoute route{AF_INET6, RT_TABLE_MAIN, RTPROT_RA, link->index, false, "", 0, "fe80::1", "", metric};
    route.expires = lifetime == NEVER ? NEVER : world.sim.Now() + lifetime;
    // Without an address there is no news of a prefix, and nobody who could use the route.
    const auto& all = world.kernel.Addresses();
    if (std::none_of(all.begin(), all.end(), [&](const auto& own) { return own.link == link->index && own.IsSix(); }))
        world.kernel.CollectGarbage();
    world.kernel.PutRoute(route);
    for (const KernelAddress& own : world.kernel.Addresses()) {
        if (own.link == link->index && own.IsSix()) {
            world.kernel.PutAddress(KernelAddress(own));
            break;
        }
    }
    if (lifetime != NEVER)
        world.agenda.At(route.expires + GC_INTERVAL, [this] { world.kernel.CollectGarbage(); });
}

void KernelWeather::Act() {
    const std::string name = AnyInterface();
    switch (random.Weighted({3, 4, 5, 4, 2, 1})) {
    case 0:
        return ChangeLink(name);
    case 1:
        return ChangeFour(name);
    case 2:
        return ChangeSix(name);
    case 3:
        return ChangeDefault();
    case 4:
        return Interfere();
    default:
        return Storm();
    }
}

/// News of no interest, so that queues overflow and dumps are interrupted, and something among it.
void KernelWeather::Storm() {
    const bool slow = random.OneIn(2);
    for (int count = random.Between(1, slow ? 150 : 12); count > 0; --count) {
        world.kernel.Chatter();
        if (slow)
            world.sim.Step("a storm of news");
        if (slow && count == 75)
            ChangeFour(AnyInterface());
    }
}

void KernelWeather::ChangeLink(const std::string& name) {
    ScriptedKernel& kernel = world.kernel;
    const KernelLink* const link = kernel.Link(name);
    if (link == nullptr) {
        kernel.AddLink(name, name == "wwan0" && random.OneIn(2));
        return PutFour(name, 10);
    }
    switch (random.Below(6)) {
    case 0:
        return kernel.RemoveLink(name);
    case 1:
        return Rename(name);
    case 2:
    case 3:
        return kernel.SetUp(name, !link->up);
    default:
        return kernel.SetCarrier(name, !link->carrier);
    }
}

void KernelWeather::Rename(const std::string& name) {
    ScriptedKernel& kernel = world.kernel;
    if (!random.OneIn(3)) {
        if (!givesNamesBack || name == renamed)
            kernel.RenameLink("old0", name);
        return;
    }
    if (kernel.Link("old0") == nullptr)
        renamed = name;
    kernel.RenameLink(name, "old0");
}

void KernelWeather::ChangeFour(const std::string& name) {
    const KernelLink* const link = world.kernel.Link(name);
    if (link == nullptr)
        return;
    std::vector<KernelAddress> own;
    for (const KernelAddress& one : world.kernel.Addresses())
        if (one.link == link->index && !one.IsSix())
            own.push_back(one);
    if (own.empty() || random.OneIn(4)) {
        if (random.OneIn(5))
            return world.kernel.PutAddress({link->index, "169.254.7.7", 16});
        if (own.empty())
            return PutFour(name, random.OneIn(2) ? 10 : 20);
        return world.kernel.PutAddress({link->index, name == "eth0" ? "198.18.1.5" : "198.18.2.5", 24});
    }
    world.kernel.RemoveAddress(own[random.Below(static_cast<unsigned>(own.size()))]);
}

void KernelWeather::ChangeSix(const std::string& name) {
    const KernelLink* const link = world.kernel.Link(name);
    if (link == nullptr)
        return;
    switch (random.Below(6)) {
    case 0:
    case 1:
        return PutSix(name);
    case 2:
    case 3:
        return Advertise(name, random.OneIn(2) ? NEVER : static_cast<Time>(random.Between(1, 20)) * SECOND);
    case 4:
        for (const KernelRoute& route : world.kernel.Routes())
            if (route.link == link->index && route.family == AF_INET6 && route.protocol == RTPROT_RA)
                return world.kernel.RemoveRoute(KernelRoute(route));
        return;
    default:
        for (const KernelAddress& own : world.kernel.Addresses())
            if (own.link == link->index && own.IsSix())
                return world.kernel.RemoveAddress(KernelAddress(own));
    }
}

/// The connection manager moves the default route, or there is none for a while.
void KernelWeather::ChangeDefault() {
    const std::string name = AnyInterface();
    const KernelLink* const link = world.kernel.Link(name);
    MoveDefault("");
    if (link == nullptr || !link->up || random.OneIn(5))
        return;
    world.kernel.PutRoute(DefaultOf(name, random.OneIn(3) ? 5 : 0));
    if (random.OneIn(4) && world.kernel.Link("eth0") != nullptr && world.kernel.Link("eth0")->up)
        world.kernel.PutRoute(DefaultOf("eth0", 7));
}

void KernelWeather::MoveDefault(const std::string& name) {
    const auto routes = world.kernel.Routes();
    for (const KernelRoute& route : routes)
        if (route.IsDefault() && route.family == AF_INET && route.protocol == CONNMAN)
            world.kernel.RemoveRoute(route);
    const KernelLink* const link = world.kernel.Link(name);
    if (link != nullptr && link->up)
        world.kernel.PutRoute(DefaultOf(name, 0));
}

/// Other programs touch what is not theirs.
void KernelWeather::Interfere() {
    const auto routes = world.kernel.Routes();
    const auto rules = world.kernel.Rules();
    for (const KernelRoute& route : routes)
        if (route.protocol == SOURCE_ROUTES && random.OneIn(2))
            return world.kernel.RemoveRoute(route);
    if (!rules.empty())
        world.kernel.RemoveRule(rules[random.Below(static_cast<unsigned>(rules.size()))]);
}

void KernelWeather::Settle() {
    world.kernel.Heal();
    for (const char* const name : {"eth0", "wwan0"}) {
        if (!givesNamesBack || name == renamed)
            world.kernel.RenameLink("old0", name);
        if (world.kernel.Link(name) == nullptr)
            world.kernel.AddLink(name, false);
        world.kernel.SetUp(name, true);
        world.kernel.SetCarrier(name, true);
        PutFour(name, 10);
        PutSix(name);
        Advertise(name, NEVER);
    }
    world.sim.Sleep(2 * TENTATIVE);
}

} // namespace OrvLab
