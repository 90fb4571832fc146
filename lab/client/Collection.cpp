// SPDX-License-Identifier: Apache-2.0
// The end of a program: all is well, and everything that is owed is collected.
#include "broker/Wire.h"
#include "client/ClientProgram.h"
#include "client/Edge.h"
#include "client/Words.h"

namespace OrvLab {

void ClientProgram::Collect() {
    isCollecting = true;
    Heal();
    AwaitQuiet();
    if (!client)
        Create();
    if (!client)
        sim.Fail("no client though all is well");
    if (random.OneIn(2))
        Tour();
    CheckRetained();
    CheckDelivery();
    if (neighbour)
        CheckTogether();
    CheckRoute();
    CheckFiles();
    const bool saysGoodBye = random.OneIn(2);
    const bool wasUp = story->isUp;
    const int wills = broker.WillsOf(story->session);
    if (saysGoodBye)
        DeInit();
    Release(false);
    CheckEnd(wills + (wasUp && !saysGoodBye ? 1 : 0));
}

/// Ticks and events at random, with nobody else at work: the route goes where it seldom goes otherwise.
void ClientProgram::Tour() {
    const Time period = static_cast<Time>(random.Between(100, 2500)) * MILLISECOND;
    for (int tick = random.Between(5, 90); tick > 0; --tick) {
        // Cellular is up and the cloud is lost more often than not.
        constexpr int EVENTS[] = {1, 1, 10, 10, 0, 6, 7, 11, 9, 5};
        if (random.OneIn(5))
            Report(EVENTS[random.Below(10)]);
        if (random.OneIn(20))
            connman.Change();
        Tick();
        Ask();
        sim.Sleep(random.OneIn(6) ? static_cast<Time>(random.Below(12'000)) * MILLISECOND : period);
    }
    connman.Heal();
}

/// A broker that has forgotten everything is told everything again.
void ClientProgram::CheckRetained() {
    if (!story->isUp)
        return;
    for (int event : {2, 3})
        Report(event);
    broker.Restart();
    sim.Sleep(SETTLED);
    if (!story->IsQuiet())
        sim.Fail("a call is not compared though all is quiet");
    for (const auto& [topic, payloads] : story->Retained()) {
        const auto found = broker.Retained().find(topic);
        const std::string retained = found != broker.Retained().end() ? found->second : "";
        if (payloads.count(retained) == 0)
            sim.Fail("the broker should retain " + topic + "=" + *payloads.begin() + ", not " + retained);
    }
    for (const auto& [topic, payload] : broker.Retained())
        if (story->Retained().count(topic) == 0 && topic != RouteReference::TOPIC)
            sim.Fail("the broker retains " + topic + "=" + payload + ", which nobody has asked for");
    const auto inhibited = broker.Retained().find(RouteReference::TOPIC);
    if ((inhibited == broker.Retained().end() ? "" : inhibited->second) != story->route.inhibited)
        sim.Fail("the broker should retain that DNS changes are: " + story->route.inhibited);
}

/// Each message reaches the application.
void ClientProgram::CheckDelivery() {
    Init();
    if (!story->isUp)
        Init();
    sim.Sleep(SECOND);
    for (const char* topic : {Texts::GUID, Texts::PANEL_CONNECTION, Texts::CELLULAR_TOPICS[0],
                              Texts::CELLULAR_TOPICS[4], "/orv/apps_control/features/shutdown_readiness/a"})
        broker.Publish(topic, "ready", false);
    sim.Sleep(SECOND);
    if (!story->HasSeenAll())
        sim.Fail("a message has not reached the application");
    if (random.OneIn(4))
        return;
    broker.DropAll();
    sim.Sleep(SETTLED);
    broker.Publish(Texts::GUID, "after a loss", false);
    sim.Sleep(SECOND);
    if (!story->HasSeenAll())
        sim.Fail("a message has not reached the application after a loss");
}

/// Another client comes and goes, and this one is told of each message all the same.
void ClientProgram::CheckTogether() {
    neighbour->Visit([this] {
        broker.Publish(Texts::GUID, "to both", false);
        sim.Sleep(SECOND);
        if (!story->HasSeenAll())
            sim.Fail("a message has not reached the application beside another one");
    });
    if (Edge::LivingOwnersOfOthers() != 0)
        sim.Fail("the neighbour is not gone");
}

/// A tick sees nothing of what comes and goes before it, but for what is remembered.
void ClientProgram::ComeAndGo() {
    const int flag = static_cast<int>(random.Below(3));
    const bool up = story->Flag(flag);
    constexpr int UP[] = {0, 6, 10};
    constexpr int DOWN[] = {1, 7, 11};
    Report(up ? DOWN[flag] : UP[flag]);
    Report(up ? UP[flag] : DOWN[flag]);
}

/// A lost cloud is found over Cellular, and over Ethernet again.
void ClientProgram::CheckRoute() {
    const auto demand = [this](RouteReference::State state, const std::string& top, int seconds) {
        for (int tick = 0; tick < seconds && (tick < 7 || story->route.state != state); ++tick) {
            Tick();
            Ask();
            sim.Sleep(SECOND);
            if (random.OneIn(6))
                ComeAndGo();
        }
        if (!story->IsQuiet())
            sim.Fail("a call is not compared though all is quiet");
        if (story->route.state != state || connman.Top() != top)
            sim.Fail("the route is in state " + std::to_string(story->route.state) + " over " + connman.Top());
        if (transfers.Living() != (story->route.hasPoke ? 1U : 0U) || transfers.LivingStacks() != transfers.Living())
            sim.Fail("a transfer is left");
    };
    transfers.Heal(true);
    if (RouteReference::ethernetName != "eth0" || RouteReference::cellularName != "wwan0")
        return;
    for (int event : {6, 5, 0})
        Report(event);
    demand(RouteReference::ETHERNET, RouteReference::ethernetName, 120);
    if (random.OneIn(3))
        return;
    for (int event : {1, 7, 9, 10})
        Report(event);
    demand(RouteReference::CELLULAR, RouteReference::cellularName, 60);
    for (int event : {0, 6})
        Report(event);
    demand(RouteReference::ETHERNET, RouteReference::ethernetName, 60);
}

void ClientProgram::CheckFiles() {
    Report(2);
    if (files.Content(SimulatedFiles::STATUS) != story->StatusText())
        sim.Fail("the status file has: " + files.Content(SimulatedFiles::STATUS));
    if (story->failure && files.Content(SimulatedFiles::ERROR) != story->errorText)
        sim.Fail("the error file has: " + files.Content(SimulatedFiles::ERROR));
}

/// Without a good-bye the broker announces that the application is not available.
void ClientProgram::CheckEnd(int wills) {
    sim.Sleep(2 * SECOND);
    if (broker.WillsOf(story->session) != wills)
        sim.Fail("the broker has announced the end " + std::to_string(broker.WillsOf(story->session)) + " times, not " +
                 std::to_string(wills));
    if (!story->isGone)
        sim.Fail("the client is not gone");
    CheckNothingIsLeft();
}

} // namespace OrvLab
