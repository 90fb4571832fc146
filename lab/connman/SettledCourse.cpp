// SPDX-License-Identifier: Apache-2.0
// What the connection manager's client has to do exactly, and when, while everybody else is well and quiet.
#include "connman/ConnmanProgram.h"

#include "sim/LabLog.h"

#include <algorithm>
#include <iterator>

namespace OrvLab {

namespace {

constexpr Time SHORTLY = 100 * MILLISECOND;
// As long as a stranger's words may lead to a question.
constexpr Time DOUBTED = 11 * SECOND;
constexpr const char* NO_ADDRESS = "0.0.0.0";
constexpr const char* FREE = "203.0.113.9";

using OrvPlatform::ConnmanRole;

} // namespace

void ConnmanProgram::Demand(bool holds, const std::string& otherwise) {
    if (!holds)
        sim.Fail(otherwise);
}

long ConnmanProgram::Records(const char* words) const {
    return std::count_if(records.begin(), records.end(),
                         [&](const std::string& text) { return text.find(words) != std::string::npos; });
}

/// An order, and what it has to answer.
void ConnmanProgram::Give(const std::string& interfaceName, bool isAccepted, const Servers* servers) {
    servers == nullptr ? OrderTop(interfaceName) : OrderServers(interfaceName, *servers);
    if (orders.back().accepted != isAccepted)
        sim.Fail(isAccepted ? "an order is refused that can be carried out"
                            : "an order is said to be under way that cannot be carried out now");
}

/// So many orders have reached the connection manager since the last time, or since the beginning.
void ConnmanProgram::SettleFor(Time duration, int wanted, const char* otherwise) {
    sim.Sleep(duration);
    const int given = bus.Orders() - ordersBefore;
    ordersBefore = bus.Orders();
    Demand(given == wanted, std::string(otherwise) + ": " + std::to_string(given) + " orders are given and not " +
                                std::to_string(wanted));
}

void ConnmanProgram::CheckSettled() {
    using Course = void (ConnmanProgram::*)();
    static constexpr Course all[] = {
        &ConnmanProgram::CheckChanges,      &ConnmanProgram::CheckKeptOrders,   &ConnmanProgram::CheckNothingToDo,
        &ConnmanProgram::CheckLatestOrders, &ConnmanProgram::CheckSilence,      &ConnmanProgram::CheckAbsence,
        &ConnmanProgram::CheckStrangers,    &ConnmanProgram::CheckManyServices, &ConnmanProgram::CheckRefusal,
        &ConnmanProgram::CheckSpareService, &ConnmanProgram::CheckImmutable};
    sim.Sleep(DOUBTED);
    for (int count = random.Between(1, 3); count > 0; --count) {
        ordersBefore = bus.Orders();
        (this->*all[random.Below(std::size(all))])();
        bus.Heal();
        sim.Sleep(DOUBTED);
        CheckPicture();
    }
}

/// The picture follows the connection manager's services, and nobody objects to what others do with them.
void ConnmanProgram::CheckChanges() {
    for (int count = 0; count < 6; ++count) {
        bus.ChangeServices();
        SettleFor(SHORTLY, 0, "undoes what others do");
        CheckPicture();
    }
}

/// What cannot be done now is kept until it can be, or until something else is wanted.
void ConnmanProgram::CheckKeptOrders() {
    static const char* const away[] = {"idle", "association", "configuration", "disconnect", "failure", ""};
    const std::string wanted = Second();
    const std::string top = bus.Top();
    const Servers servers{bus.Of(wanted)->written == Servers{FREE} ? "203.0.113.10" : FREE};
    const bool isGone = random.OneIn(2);
    isGone ? bus.Remove(wanted) : bus.SetState(wanted, away[random.Below(std::size(away))]);
    sim.Sleep(SHORTLY);
    Give(wanted, false);
    SettleFor(30 * SECOND, 0, "puts on top what is not connected");
    Give(wanted, !isGone, &servers);
    SettleFor(SECOND, isGone ? 0 : 1, "name servers of a service that is not connected");
    const bool isReplaced = random.OneIn(3);
    if (isReplaced)
        Give(top, true);
    isGone ? bus.Add({wanted, "ready", {}}) : bus.SetState(wanted, "ready");
    sim.Sleep(SECOND);
    CheckPicture();
    Demand(bus.Top() == (isReplaced ? top : wanted),
           isReplaced ? "an order comes true that was replaced" : "an order that was kept does not come true");
    Demand(bus.Of(wanted)->written == servers, "name servers that were ordered before do not come true");
}

void ConnmanProgram::CheckNothingToDo() {
    const int before = bus.Calls();
    Give(bus.Top(), true);
    for (const LabService& service : std::vector<LabService>(bus.Services()))
        if (service.written != Servers{OrvPlatform::NO_SERVERS})
            Give(service.interfaceName, true, &service.written);
    sim.Sleep(5 * SECOND);
    Demand(bus.Calls() == before, "asks the connection manager for what is so already");
}

/// Of what was ordered while nothing could be done the latest is done, and nothing else.
void ConnmanProgram::CheckLatestOrders() {
    bus.EndManager();
    sim.Sleep(SHORTLY);
    std::set<std::string> subjects;
    for (int count = random.Between(2, 8); count > 0; --count) {
        const bool isTop = random.OneIn(2);
        const Servers servers = AnyServers();
        const std::string interfaceName = AnyInterface();
        Give(interfaceName, false, isTop ? nullptr : &servers);
        subjects.insert(isTop ? "" : interfaceName);
    }
    const int before = bus.Orders();
    bus.StartManager();
    sim.Sleep(SECOND);
    Demand(bus.Orders() - before <= static_cast<int>(subjects.size()), "gives an order that was replaced");
    for (const std::string& subject : subjects) {
        const auto last =
            std::find_if(orders.rbegin(), orders.rend(), [&](const auto& order) { return order.subject == subject; });
        Demand(subject.empty() ? bus.Top() == last->interfaceName : bus.Of(subject)->written == Written(last->servers),
               "the latest order does not come true when the connection manager is there");
    }
}

/// One call waits, is told of once, and what was ordered meanwhile comes behind it.
void ConnmanProgram::CheckSilence() {
    const int before = bus.Calls();
    const long warnings = Records("has not answered for");
    const long answers = Records("answers again");
    const std::string first = Second();
    const std::string second = bus.Top();
    bus.SetManners(SimulatedBus::Manners::MUTE);
    Give(first, true);
    sim.Sleep(2900 * MILLISECOND);
    Demand(Records("has not answered for") == warnings, "complains of a silence too early");
    sim.Sleep(200 * MILLISECOND);
    Demand(Records("has not answered for") == warnings + 1, "does not complain of a silence in time");
    const Servers servers{FREE};
    Give("eth0", true, &servers);
    const bool isTakenBack = random.OneIn(2);
    if (isTakenBack)
        Give(second, true);
    sim.Sleep(60 * SECOND);
    Demand(bus.Calls() == before + 1, "asks again while an answer is awaited");
    Demand(Records("has not answered for") == warnings + 1, "complains again of the same silence");
    bus.SetManners(SimulatedBus::Manners::OBEYS);
    sim.Sleep(SECOND);
    Demand(Records("answers again") == answers + 1, "does not say that the silence is over");
    Demand(bus.Top() == (isTakenBack ? second : first) && bus.Of("eth0")->written == servers,
           "what was ordered in a silence does not come true");
}

/// Bus or connection manager are away for ten minutes, and come back without a word.
void ConnmanProgram::CheckAbsence() {
    const bool isBus = random.OneIn(2);
    const auto warnings = [&] { return Records("is not on the message bus") + Records("is not reachable"); };
    const auto tries = [&] { return isBus ? bus.Attempts() : bus.Questions(); };
    const long told = warnings();
    isBus ? bus.Stop() : bus.EndManager();
    sim.Sleep(SECOND);
    const std::string top = Watch([&] { return client->TopPriorityInterface(); });
    Demand(top.empty(), "without a connection manager " + top + " is said to be on top");
    const int before = tries();
    sim.Sleep(600 * SECOND);
    const int count = tries() - before;
    Demand(count >= 55 && count <= 75,
           "in ten minutes without a connection manager it looks for one " + std::to_string(count) + " times");
    Demand(warnings() == told + 1, "an absence is told " + std::to_string(warnings() - told) + " times");
    const std::string wanted = AnyInterface();
    Give(wanted, false);
    bus.StartManagerUnnoticed();
    sim.Sleep(11 * SECOND);
    CheckPicture();
    Demand(bus.Top() == wanted, "what was ordered without a connection manager does not come true");
}

/// What strangers say is believed at no moment, asked about in bounds and told once.
void ConnmanProgram::CheckStrangers() {
    const int asked = bus.Calls();
    const int before = bus.Orders();
    for (int count = 0; count < 30; ++count) {
        bus.Forge();
        for (int look = 0; look < 3; ++look) {
            sim.Sleep(MILLISECOND);
            CheckPicture();
        }
    }
    bus.SayNonsense();
    for (int look = 0; look < 20; ++look) {
        sim.Sleep(MILLISECOND);
        CheckPicture();
    }
    Demand(bus.Orders() == before, "an order follows from what strangers say");
    Demand(bus.Calls() - asked <= 4, "strangers have it ask " + std::to_string(bus.Calls() - asked) + " times");
    Demand(Records("a signal ") == 1, "tells more or less than once of strangers");
    bus.SetForestalled(true);
    const std::string wanted = Second();
    const Servers servers{FREE};
    Give(wanted, true);
    Give(wanted, true, &servers);
    sim.Sleep(SECOND);
    Demand(bus.Top() == wanted && bus.Of(wanted)->written == servers, "takes a stranger's answer for the true one");
    bus.SetForestalled(false);
}

/// Of a list no more than 256 services are read.
void ConnmanProgram::CheckManyServices() {
    constexpr std::size_t most = 256;
    const bool isRead = random.OneIn(2);
    const std::string wanted = Second();
    const std::string top = bus.Top();
    bus.PutLastOf(isRead ? most : most + 1, wanted);
    sim.Sleep(SECOND);
    Give(wanted, isRead);
    SettleFor(SECOND, isRead ? 1 : 0, "the last of many services");
    Demand(bus.Top() == (isRead ? wanted : top), "the last of many services is not where it should be");
    bus.RemoveOthers();
    sim.Sleep(SECOND);
    CheckPicture();
    Demand(bus.Top() == wanted, "an order does not come true when there are fewer services");
}

/// A refused order rests until something changes, or until it is given again, and is told of once.
void ConnmanProgram::CheckRefusal() {
    const std::string wanted = Second();
    const long warnings = Records("cannot put");
    const auto change = [&] { bus.SetState(wanted, bus.Of(wanted)->state == "ready" ? "online" : "ready"); };
    bus.SetManners(SimulatedBus::Manners::REFUSES_ORDERS);
    Give(wanted, true);
    SettleFor(30 * SECOND, 1, "an order that is refused");
    change();
    SettleFor(5 * SECOND, 1, "a refused order, after a change");
    Give(wanted, true);
    SettleFor(5 * SECOND, 1, "a refused order that is given again");
    Demand(Records("cannot put") == warnings + 1, "tells more or less than once that an order is refused");
    bus.SetManners(SimulatedBus::Manners::OBEYS);
    change();
    sim.Sleep(SECOND);
    Demand(bus.Top() == wanted, "a refused order does not come true after a change");
}

/// Of several services of an interface the connected one is meant, wherever it stands.
void ConnmanProgram::CheckSpareService() {
    const std::string wanted = Second();
    const bool isInFront = random.OneIn(2);
    bus.Add({wanted, "idle", {}, "_spare"}, isInFront);
    sim.Sleep(SHORTLY);
    CheckPicture();
    const Servers servers{FREE};
    Give(wanted, true);
    Give(wanted, true, &servers);
    sim.Sleep(SECOND);
    CheckPicture();
    Demand(bus.Top() == wanted, "the connected service of an interface is not put on top");
    for (const LabService& service : bus.Services())
        Demand(service.written == servers || service.interfaceName != wanted || !service.variant.empty(),
               "the name servers of the connected service are not set");
    bus.RemoveOthers();
    sim.Sleep(SHORTLY);
}

void ConnmanProgram::CheckImmutable() {
    const std::string interfaceName = AnyInterface();
    const Servers servers{FREE};
    bus.SetImmutable(interfaceName, true);
    sim.Sleep(SHORTLY);
    Give(interfaceName, bus.Of(interfaceName)->written == servers, &servers);
    SettleFor(5 * SECOND, 0, "name servers that cannot be set");
    bus.SetImmutable(interfaceName, false);
    sim.Sleep(SECOND);
    Demand(bus.Of(interfaceName)->written == servers, "name servers are not set when they can be");
}

/// An earlier process has ended between taking name servers away and giving them back.
void ConnmanProgram::RunFromLeftovers() {
    const bool isOnlooker = random.OneIn(3);
    const bool isOrdered = !isOnlooker && random.OneIn(3);
    LabLog::longestStall = 0;
    sim.DisableStalls();
    bus.Heal();
    for (const char* const interfaceName : {"eth0", "wwan0"}) {
        if (random.OneIn(2))
            continue;
        bus.TakeServersAway(interfaceName);
        if (random.OneIn(4))
            bus.SetState(interfaceName, "idle");
        else if (!isOnlooker && !(isOrdered && interfaceName == std::string("eth0")))
            leftOver.insert(interfaceName);
    }
    const std::vector<LabService> before = bus.Services();
    Make(isOnlooker ? ConnmanRole::ONLOOKER : ConnmanRole::CONTROLLER);
    if (isOrdered)
        OrderServers("eth0", {NO_ADDRESS});
    else
        Watch([&] { return client->TopPriorityInterface(); });
    SettleFor(5 * SECOND, static_cast<int>(leftOver.size()) + (isOrdered ? 1 : 0), "at the start");
    for (const LabService& service : before) {
        const bool isTaken = isOrdered && service.interfaceName == "eth0";
        const Servers wanted = isTaken                                      ? Servers{OrvPlatform::NO_SERVERS}
                               : leftOver.count(service.interfaceName) != 0 ? Servers()
                                                                            : service.written;
        Demand(bus.Of(service.interfaceName)->written == wanted,
               "name servers of " + service.interfaceName + " are not as they should be at the start");
    }
    CheckPicture();
    End();
}

} // namespace OrvLab
