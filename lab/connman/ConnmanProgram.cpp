// SPDX-License-Identifier: Apache-2.0
#include "connman/ConnmanProgram.h"

#include "connman/FakeDbus.h"
#include "sim/Descriptors.h"
#include "sim/LabLog.h"

#include <algorithm>
#include <functional>
#include <iterator>

namespace OrvLab {

namespace {

constexpr const char* NO_ADDRESS = "0.0.0.0";
// The longest pause between two attempts, twice, with what each attempt takes.
constexpr Time SETTLED = 40 * SECOND;
// For so long an old picture may be taken for true: no mood of the bus lasts longer.
constexpr Time OLD_PICTURE = 60 * SECOND;
constexpr Time FOR_STOP = 600 * MILLISECOND;

} // namespace

/// A call that must come back without waiting, or within a limit. The clock jumps only while everybody waits.
class ConnmanProgram::WatchedCall {
public:
    WatchedCall(ConnmanProgram& program, std::string call, Time limit = 0)
        : owner(program), name(std::move(call)), longest(limit), stalledBefore(program.sim.StallTimeSoFar()) {
        owner.sim.Trace("  " + owner.sim.Self().name + " calls " + name);
        place = owner.calls.insert(owner.calls.end(), this);
    }
    ~WatchedCall() {
        owner.calls.erase(place);
        const Time stalled = owner.sim.StallTime() - stalledBefore;
        owner.sim.Trace("  " + owner.sim.Self().name + " comes back from " + name);
        if (waited > longest + stalled)
            owner.sim.Fail(name + " has waited for " + std::to_string(static_cast<double>(waited) / SECOND) + " s");
    }
    WatchedCall(const WatchedCall&) = delete;
    WatchedCall& operator=(const WatchedCall&) = delete;

    void Jumped(Time by) { waited += by; }

private:
    ConnmanProgram& owner;
    const std::string name;
    const Time longest;
    const Time stalledBefore;
    Time waited = 0;
    std::list<WatchedCall*>::iterator place;
};

ConnmanProgram::ConnmanProgram(Simulation& simulation, std::uint64_t seed)
    : bus(simulation, seed * 3 + 11, *this), sim(simulation), random(seed * 5 + 13) {
    LabLog::longestStall = random.OneIn(4) ? static_cast<Time>(random.Between(1, 3000)) * MILLISECOND : 0;
    LabLog::onRecord = [this](const std::string& text) {
        records.push_back(text);
        if (text.find("a signal ") == 0 && !bus.HasForged())
            sim.Fail("takes for a stranger's what nobody has forged: " + text);
    };
    FakeDbus::bus = &bus;
    FakeDbus::connections = 0;
    sim.SetSurroundings(&bus);
    sim.SetJumpListener([this](Time by) {
        for (WatchedCall* call : calls)
            call->Jumped(by);
    });
}

ConnmanProgram::~ConnmanProgram() {
    FakeDbus::bus = nullptr;
    LabLog::onRecord = nullptr;
}

void ConnmanProgram::Make(OrvPlatform::ConnmanRole role) {
    client = Watch([role] {
        return std::make_unique<OrvPlatform::ConnmanClient>("the bus of the lab", OrvPlatform::ConnmanLimits(), role);
    });
}

void ConnmanProgram::Run() {
    if (random.OneIn(12))
        return RunFromLeftovers();
    Make(OrvPlatform::ConnmanRole::CONTROLLER);
    threadsLeft = 1 + random.Between(1, 3);
    std::vector<Simulation::Thread*> threads;
    for (int number = 1; number < threadsLeft; ++number)
        threads.push_back(&sim.Start("application " + std::to_string(number), [this] { ApplicationThread(); }));
    threads.push_back(&sim.Start("bus", [this] { BusThread(); }));
    for (Simulation::Thread* thread : threads)
        sim.Join(*thread);
    const bool leavesInTheMidst = random.OneIn(4);
    if (!leavesInTheMidst)
        Collect();
    End();
}

void ConnmanProgram::ApplicationThread() {
    for (int count = random.Between(2, 12); count > 0; --count) {
        Act();
        Pause(random.OneIn(3) ? 8000 : 20);
    }
}

void ConnmanProgram::BusThread() {
    for (int count = random.Between(0, 12); count > 0; --count) {
        Pause(random.OneIn(2) ? 4000 : 30);
        switch (random.Below(12)) {
        case 11:
            bus.SetForestalled(random.OneIn(2));
            break;
        case 0:
            bus.EndManager();
            break;
        case 1:
            bus.StartManager();
            break;
        case 2:
            bus.Stop();
            break;
        case 3:
            bus.Start();
            break;
        case 4:
            bus.SetFrozen(random.OneIn(2));
            break;
        case 5:
            bus.Forge();
            break;
        case 6:
        case 7:
            bus.SetManners(static_cast<SimulatedBus::Manners>(random.Below(4)));
            break;
        default:
            bus.ChangeServices();
            break;
        }
        sim.Step("the bus has changed");
    }
}

void ConnmanProgram::Act() {
    switch (random.Below(6)) {
    case 0:
    case 1:
        OrderTop(AnyInterface());
        break;
    case 2:
    case 3:
        OrderServers(AnyInterface(), AnyServers());
        break;
    case 4: {
        static const char* const wrong[] = {"no address", "203.0.113.256", "203.0.113", "::g", "203.0.113.1 ", ""};
        const std::string server = wrong[random.Below(std::size(wrong))];
        const WatchedCall call(*this, "order of nonsense");
        if (Watch([&] {
                return client->SetTopPriorityInterface("") || client->SetDnsConfiguration("", {"203.0.113.1"}) ||
                       client->SetDnsConfiguration("eth0", {"203.0.113.1", server});
            }))
            sim.Fail("takes an order that makes no sense");
        wrongServers.insert(server);
        break;
    }
    default: {
        const WatchedCall call(*this, "TopPriorityInterface");
        Watch([&] { return client->TopPriorityInterface(); });
        break;
    }
    }
}

void ConnmanProgram::OrderTop(const std::string& interfaceName) {
    const WatchedCall call(*this, "SetTopPriorityInterface " + interfaceName);
    const std::size_t number = orders.size();
    orders.push_back({"", interfaceName, {}, sim.Now(), ++events, 0, false});
    const bool done = Watch([&] { return client->SetTopPriorityInterface(interfaceName); });
    orders[number].accepted = done;
    orders[number].ended = ++events;
}

void ConnmanProgram::OrderServers(const std::string& interfaceName, const Servers& servers) {
    const WatchedCall call(*this, "SetDnsConfiguration " + interfaceName);
    const std::size_t number = orders.size();
    orders.push_back({interfaceName, interfaceName, servers, sim.Now(), ++events, 0, false});
    const bool done = Watch([&] { return client->SetDnsConfiguration(interfaceName, servers); });
    orders[number].accepted = done;
    orders[number].ended = ++events;
}

/// As the connection manager is told.
ConnmanProgram::Servers ConnmanProgram::Written(const Servers& servers) {
    Servers written;
    for (const std::string& server : servers)
        if (server != NO_ADDRESS && server != "::")
            written.push_back(server);
    return servers.empty() || !written.empty() ? written : Servers{OrvPlatform::NO_SERVERS};
}

ConnmanProgram::Servers ConnmanProgram::AnyServers() {
    static const Servers all[] = {{},
                                  {},
                                  {NO_ADDRESS},
                                  {NO_ADDRESS},
                                  {"203.0.113.1"},
                                  {"203.0.113.1", "203.0.113.2"},
                                  {"2001:db8::53"},
                                  {"203.0.113.1", "2001:db8::53"},
                                  {NO_ADDRESS, "203.0.113.2"},
                                  {"203.0.113.2", "::"},
                                  {"::"},
                                  {"::", NO_ADDRESS}};
    return all[random.Below(std::size(all))];
}

std::string ConnmanProgram::AnyInterface() {
    return random.OneIn(2) ? "eth0" : "wwan0";
}

void ConnmanProgram::Pause(int most) {
    sim.Sleep(static_cast<Time>(random.Below(static_cast<unsigned>(most))) * MILLISECOND);
}

void ConnmanProgram::Moved(const std::string& interfaceName) {
    const auto asksFor = [&](const Order& order) {
        return order.subject.empty() && order.interfaceName == interfaceName;
    };
    if (std::none_of(orders.begin(), orders.end(), asksFor))
        sim.Fail(interfaceName + " is put on top, and nobody has asked for that");
}

void ConnmanProgram::Configured(const std::string& interfaceName, const Servers& servers) {
    const auto asksFor = [&](const Order& order) {
        return order.subject == interfaceName && Written(order.servers) == servers;
    };
    const bool takesBack = servers.empty() && leftOver.count(interfaceName) != 0;
    if (!takesBack && std::none_of(orders.begin(), orders.end(), asksFor))
        sim.Fail("name servers of " + interfaceName + " are set that nobody has asked for");
}

/// Bus and connection manager are well again.
void ConnmanProgram::Collect() {
    LabLog::longestStall = 0;
    sim.DisableStalls();
    bus.Heal();
    // An order that came first would be the one that starts the thread.
    if (orders.empty())
        OrderTop("eth0");
    sim.Sleep(SETTLED);
    CheckOrders();
    CheckPicture();
    if (random.OneIn(2))
        OrderServers("ppp0", AnyServers()); // waits for an interface that never comes
    CheckLastOrders();
    CheckIdle();
    if (random.OneIn(3))
        CheckRestart();
    CheckSettled();
    CheckNotes();
}

/// What was asked for last has come true, or was true already when it was asked for.
void ConnmanProgram::CheckOrders() {
    for (const Order& order : orders) {
        const auto replaces = [&](const Order& other) {
            return &other != &order && other.subject == order.subject && other.ended > order.began;
        };
        if (std::any_of(orders.begin(), orders.end(), replaces))
            continue;
        const Time since = order.begun - OLD_PICTURE;
        if (order.subject.empty() ? !bus.WasTop(order.interfaceName, since)
                                  : !bus.WasWritten(order.subject, Written(order.servers), since))
            sim.Fail("the last order for " + (order.subject.empty() ? "the top" : "name servers of " + order.subject) +
                     (order.subject.empty() ? ", " + order.interfaceName + "," : "") + " has not come true");
    }
}

void ConnmanProgram::CheckPicture() {
    const std::string told = Watch([&] { return client->TopPriorityInterface(); });
    if (told != bus.Top())
        sim.Fail("on top is " + bus.Top() + ", it tells \"" + told + "\"");
}

/// Whatever has happened, it can still do everything.
void ConnmanProgram::CheckLastOrders() {
    const std::string other = bus.Top() == "eth0" ? "wwan0" : "eth0";
    const Servers servers{"203.0.113.77"};
    const bool oneByOne = random.OneIn(2);
    const auto comesTrue = [&](const char* what, const std::function<bool()>& condition) {
        if (!orders.back().accepted)
            sim.Fail("an order is refused that can be carried out");
        if (oneByOne)
            sim.Sleep(SECOND);
        if (oneByOne && !condition())
            sim.Fail(std::string(what) + " within a second");
    };
    const auto isSet = [&](const char* interfaceName, const Servers& wanted) {
        return bus.Of(interfaceName)->written == wanted;
    };
    const Servers none{OrvPlatform::NO_SERVERS};
    OrderServers("eth0", servers);
    comesTrue("name servers are not set", [&] { return isSet("eth0", servers); });
    OrderServers("wwan0", {NO_ADDRESS});
    comesTrue("name servers are not taken away", [&] { return isSet("wwan0", none); });
    OrderTop(other);
    comesTrue("the other one is not on top", [&] { return bus.Top() == other; });
    sim.Sleep(oneByOne ? 0 : SECOND);
    if (bus.Top() != other || !isSet("eth0", servers) || !isSet("wwan0", none))
        sim.Fail("three orders do not come true within a second");
    CheckPicture();
}

/// The connection manager is away for a while. What is ordered meanwhile comes true, and what was ordered before stays.
void ConnmanProgram::CheckRestart() {
    const std::string wanted = random.OneIn(2) ? bus.Top() : AnyInterface();
    bus.EndManager();
    sim.Sleep(SECOND);
    const std::string told = Watch([&] { return client->TopPriorityInterface(); });
    if (!told.empty())
        sim.Fail("without a connection manager " + told + " is said to be on top");
    OrderTop(wanted);
    Pause(3000);
    bus.StartManager();
    bus.Heal();
    sim.Sleep(SETTLED);
    CheckPicture();
    if (bus.Top() != wanted)
        sim.Fail(wanted + " was ordered while there was no connection manager, and is not on top");
    if (bus.Of("eth0")->written != Servers{"203.0.113.77"} ||
        bus.Of("wwan0")->written != Servers{OrvPlatform::NO_SERVERS})
        sim.Fail("name servers that were ordered do not last");
}

/// With nothing to do nobody is asked.
void ConnmanProgram::CheckIdle() {
    const int before = bus.Calls();
    sim.Sleep(60 * SECOND);
    if (bus.Calls() != before)
        sim.Fail("the connection manager is asked " + std::to_string(bus.Calls() - before) +
                 " times with nothing to do");
}

/// What makes no sense is said once.
void ConnmanProgram::CheckNotes() {
    const long wanted = wrongServers.empty() ? 0 : 1;
    Demand(Records("an order to put an interface on top names none") == wanted &&
               Records("a DNS setting names no interface") == wanted,
           "says more or less than once that an order names no interface");
    for (const std::string& server : wrongServers)
        Demand(Records(("cannot set name servers of eth0: \"" + server + "\" is no IP address").c_str()) == 1,
               "says more or less than once that \"" + server + "\" is no address");
}

void ConnmanProgram::End() {
    sim.DisableStalls();
    {
        const WatchedCall call(*this, "Stop", FOR_STOP);
        Watch([&] { client->Stop(); });
    }
    if (client->SetTopPriorityInterface("eth0") || !client->TopPriorityInterface().empty())
        sim.Fail("takes an order after its end");
    Watch([&] { client.reset(); });
    LabLog::longestStall = 0;
    sim.Sleep(SETTLED); // a thread that could not be waited for
    if (sim.ThreadsAlive() != 1)
        sim.Fail("a thread is left");
    if (FakeDbus::connections != 0)
        sim.Fail("a connection is left");
    if (Descriptors::Of().Count() != 0)
        sim.Fail("a descriptor is left");
}

} // namespace OrvLab
