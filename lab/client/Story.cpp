// SPDX-License-Identifier: Apache-2.0
#include "client/Story.h"

#include "client/Edge.h"
#include "client/SimulatedTransfers.h"
#include "client/Words.h"

#include <algorithm>
#include <utility>

namespace OrvLab {

using namespace Texts;

Story::Story(Witness& seenBy, int which) : session("ORV_Stack"), route("OrvRoute"), witness(seenBy), number(which) {
    destruction.expected = {Edge::Record("trace", "OrvStackClient", "~OrvStackClient", ""),
                            "stop the delivery of OrvRoute", "disconnect OrvRoute", "stop the delivery of " + session,
                            Edge::Record("trace", "OrvSessionMqtt", "~OrvSessionMqtt", "")};
    moments.push_back({0, 0, route.MayBeSilent()});
}

void Story::Fail(const std::string& what) const {
    witness.sim.Fail("client " + std::to_string(number) + ": " + what);
}

void Story::HandlerIs(bool there) {
    handlerThere = there;
    if (!there)
        handlerLost = witness.Now();
}

void Story::Connects(const std::string& name) {
    ++epoch;
    ++inits;
    isQuiet = false;
    former.insert(former.end(), messages.begin(), messages.end());
    messages.clear();
    feature = name;
}

void Story::IsDisconnected() {
#ifndef ORV_LAB_THREAD_SANITIZER // there it takes further steps before it is seen
    if (!isQuiet)
        quietSince = witness.sim.Steps();
    isQuiet = true;
#endif
}

// The status is stored between these two.
void Story::WatchStatus(const Effect& effect, bool& stores) {
    if (stores) {
        stores = false;
        if (--statusCalls == 0)
            statuses = group;
    }
    for (int status = 0; status < 7; ++status) {
        if (effect.what != Edge::Record("trace", "OrvStackClient", "AppStatusRequest",
                                        std::string("(status=") + STATUSES[status] + ")"))
            continue;
        stores = true;
        if (statusCalls++ == 0)
            group.clear();
        group.insert(status);
        statuses.insert(status);
    }
}

/// What the end of the client does may be seen in any call, and outside of all: wherever its last pointer is released.
bool Story::Destroys(const Effect& effect) {
    const auto& steps = destruction.expected;
    const auto found = std::find(steps.begin(), steps.end(), effect.what);
    if (found == steps.end() || (destruction.compared == 0 && found != steps.begin()))
        return false;
    if (destruction.compared == steps.size() || *found != steps[destruction.compared])
        Fail("its end should: " + steps[std::min(destruction.compared, steps.size() - 1)] + "; it does: " + *found);
    isGone = ++destruction.compared == steps.size();
    return true;
}

void Story::Seen(Call& call, const Effect& effect) {
    if (Destroys(effect)) {
        call.effects.pop_back();
        return;
    }
    WatchStatus(effect, call.storesStatus);
    if (effect.what == "disconnect " + session) {
        lastDisconnect = effect.number;
        isUp = false;
    }
    const bool isEvent = call.kind == Call::Kind::EVENT;
    if (!isEvent && call.kind != Call::Kind::TICK)
        return;
    if (call.effects.size() == (isEvent ? 2U : 1U)) {
        auto unit = std::make_shared<Unit>();
        unit->first = unit->routeFirst = effect.number;
        unit->isTick = !isEvent;
        units[&call] = unit;
        (isEvent ? events : routeUnits).push_back(unit);
    }
    if (isEvent && effect.what.rfind("put on top ", 0) == 0) {
        const auto& unit = units[&call];
        if (!unit)
            Fail("an event moves the route before anything else");
        unit->order = effect;
        unit->routeFirst = effect.number;
        routeUnits.push_back(unit);
    }
}

void Story::Returned(const std::shared_ptr<Call>& call) {
    const auto unit = units.find(call.get());
    if (unit != units.end()) {
        unit->second->call = call;
        units.erase(unit);
    } else if (call->kind == Call::Kind::EVENT && !call->threw) {
        Fail(call->name + " has no effect");
    } else if (call->kind == Call::Kind::TICK || call->kind == Call::Kind::RECONNECT) {
        waiting.push_back(call);
    } else if (call->kind == Call::Kind::CREATE) {
        CompareCreation(*call);
    } else {
        CompareOther(*call);
    }
    Advance();
}

void Story::Advance() {
    bool moves = true;
    while (moves) {
        moves = false;
        if (!events.empty() && events.front()->call) {
            CompareEvent(*events.front());
            events.pop_front();
            moves = true;
        }
        if (!routeUnits.empty() &&
            (routeUnits.front()->isTick ? routeUnits.front()->call != nullptr : routeUnits.front()->isCompared)) {
            CompareRoute(*routeUnits.front());
            routeUnits.pop_front();
            moves = true;
        }
    }
    CompareWaiting();
}

void Story::CompareWaiting() {
    const auto isDue = [this](const std::shared_ptr<Call>& call) {
        return routeUnits.empty() || routeUnits.front()->routeFirst > call->end;
    };
    while (!waiting.empty() && isDue(waiting.front())) {
        const std::shared_ptr<Call> call = waiting.front();
        waiting.erase(waiting.begin());
        if (call->kind == Call::Kind::TICK)
            CompareSilentTick(*call);
        else
            CompareReconnect(*call);
    }
}

void Story::CompareRoute(Unit& unit) {
    if (unit.routeFirst <= lastRouteSeen)
        Fail("two calls are in the route supervision at the same time");
    if (unit.isTick) {
        Replay replay(*unit.call);
        route.Tick(replay);
        replay.ExpectEnd();
        lastRouteSeen = replay.Reached();
        if (unit.call->path != "?" && unit.call->path != RouteReference::path)
            Fail("the path of the cloud connection is '" + unit.call->path + "', not '" + RouteReference::path + "'");
        if (route.reconnect)
            switches.push_back({unit.routeFirst, unit.call->end, false});
        route.reconnect = false;
    } else {
        Call part;
        part.name = "the route after an event";
        part.effects.push_back(unit.order);
        Replay replay(part);
        route.Update(replay, unit.cloud, unit.ethernet, unit.cellular);
        lastRouteSeen = unit.order.number;
    }
    moments.push_back({unit.routeFirst, lastRouteSeen, route.MayBeSilent()});
}

/// At some moment between its beginning and its end nothing was to do.
void Story::CompareSilentTick(const Call& call) {
    for (std::size_t index = 0; index < moments.size(); ++index) {
        const bool isOver = index + 1 < moments.size() && moments[index + 1].until < call.begin;
        if (moments[index].maybeSilent && !isOver && moments[index].from <= call.end)
            return;
    }
    Fail("a tick does nothing in state " + std::to_string(route.state));
}

void Story::CompareReconnect(const Call& call) {
    bool any = false;
    for (Switch& one : switches) {
        if (one.taken || one.at > call.end)
            continue;
        if (!call.answer && one.known < call.begin)
            Fail("the route has moved, and the application is not told");
        if (!call.answer || (any && one.known >= call.begin))
            continue;
        any = one.taken = true;
    }
    if (call.answer && !any)
        Fail("the application is told to reconnect for nothing");
}

bool Story::WanPath() const {
    return (ethernetLink && ethernetIp) || (cellularLink && cellularIp);
}

void Story::ApplyEvent(int event) {
    bool* const flags[] = {&cloud, &panel, &ethernetLink, &ethernetIp, &cellularLink, &cellularIp};
    // Which flag, and whether it is up.
    constexpr int WHICH[] = {0, 0, 1, 1, 2, 2, 3, 3, 4, 4, 5, 5};
    constexpr bool VALUE[] = {true, false, true, false, false, true, true, false, false, true, true, false};
    if (event == 12)
        failure = true;
    else
        *flags[WHICH[event]] = VALUE[event];
    anyEvent = true;
}

void Story::Led(Replay& replay, bool yellow, int state, int& sent) {
    if (state == sent)
        return;
    const std::string topic = yellow ? YELLOW : GREEN;
    replay.ExpectRecord("trace", "OrvSessionMqtt", "LedUpdateRequest",
                        std::string("(Led=") + (yellow ? "YELLOW" : "GREEN") + ", State=" + LED_STATES[state] + ")");
    replay.ExpectRecord("trace", "OrvSessionMqtt", "LedUpdateRequest",
                        "(Led=" + topic + ", State=" + LED_WORDS[state] + ")");
    sent = replay.Expect(Edge::Publication(session, true, false, topic, LED_WORDS[state])) == 0 ? state : 3;
    asked[topic].push_back({LED_WORDS[state], replay.Latest().number, replay.Latest().answered});
}

void Story::Leds(Replay& replay) {
    constexpr int ON = 0;
    constexpr int OFF = 1;
    constexpr int BLINK = 2;
    int yellow = WanPath() ? BLINK : ON;
    int green = OFF;
    if (cloud) {
        yellow = OFF;
        green = ON;
    }
    if (failure)
        yellow = green = BLINK;
    Led(replay, true, yellow, yellowSent);
    Led(replay, false, green, greenSent);
}

std::string Story::StatusText() const {
    const auto line = [](const char* name, const char* value) {
        return std::string("\"") + name + "\",\"" + value + "\"";
    };
    const auto word = [](bool up) { return up ? "Up" : "Down"; };
    return line("Enterprise Feature", panel ? "Enabled" : "Disabled") + "\n" + line("Cloud Connection", word(cloud)) +
           "\n" + line("Ethernet", word(ethernetLink)) + "\n" + line("Cellular", word(cellularLink));
}

} // namespace OrvLab
