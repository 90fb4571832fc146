// SPDX-License-Identifier: Apache-2.0
#include "gateway/ApplicationModel.h"

#include <ConnInterfaceString.h>
#include <netinet/tcp.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <utility>

namespace OrvLab {

using OrvStackSdk::AppStatus;
using OrvStackSdk::OrvEvent;

namespace {

constexpr const char* NAMES[] = {"eth0", "wwan0"};
// An attempt to start, which may wait twice for 3 s, and the end of the session and of the client, 1 s each.
constexpr Time LONGEST_END = 8 * SECOND;
// What the application itself does that ends a connection, it does at once or with a tick.
constexpr Time OWN_REASON = 5 * SECOND;
constexpr Time SLACK = 20 * MILLISECOND;
constexpr Time USUAL_PAUSE = 250 * MILLISECOND;
constexpr Time RESTLESS = 6 * SECOND; // the settling behind a move, and what is quick about it
constexpr Time WATCHDOG = 20 * SECOND;
constexpr Time BEAT = 10 * SECOND;
constexpr Time REPAIRED = SECOND;
constexpr Time LONGEST_REPAIR = 60 * SECOND;
constexpr int FAST_REPAIRS = 50;
constexpr Time SHORTEST_PROBATION = 60 * SECOND;
constexpr Time FOLLOWED = 5 * SECOND; // a change of the route, in all that it means
constexpr Time MEMORY = 600 * SECOND;
constexpr Time LONG_MEMORY = 3600 * SECOND;

std::string PathOf(const std::string& interface) {
    return interface == "eth0" ? "ethernet" : interface == "wwan0" ? "cellular" : "other";
}

/// @param interface of the connection; empty: neither of the two
std::string Shown(const std::string& interface) {
    return interface.empty() ? "another interface" : interface;
}

} // namespace

ApplicationModel::ApplicationModel(World& its, FakeFiles& itsFiles, int applicationThread)
    : world(its), files(itsFiles), thread(applicationThread), changedAt(its.sim.Now()) {
    world.onConnack = [this](CloudSocket& socket) { ConnackRead(socket); };
    world.onClosed = [this](const CloudSocket& socket) { Closed(socket); };
    world.onDisconnect = [this] { SendsDisconnect(); };
    world.onNotify = [this](const std::string& message) { Notified(message); };
    world.onSignal = [this](int number) { TakesSignal(number); };
    files.onReplaced = [this](const std::string& path) { Replaced(path); };
    LabLog::taker = [this](const LabLog::Record& record) {
        Logged(record);
        return false;
    };
}

ApplicationModel::~ApplicationModel() {
    LabLog::taker = nullptr;
}

void ApplicationModel::Fail(const std::string& what) {
    world.sim.Fail("application: " + what);
}

Time ApplicationModel::Allowance() const {
    return SLACK + disk + world.sim.StallTime();
}

void ApplicationModel::OptionsAre(const Options& those) {
    hostChanged = hostChanged || options.host != those.host;
    options = those;
    otherOptions = true;
    optionsAt = world.sim.Now();
}

void ApplicationModel::Terminated() {
    if (terminatedAt != NEVER)
        return;
    terminatedAt = world.sim.Now();
    stalledBefore = world.sim.StallTimeSoFar();
}

void ApplicationModel::Reloaded() {
    reloadedAt = world.sim.Now();
    owesBooting = ready;
}

// What it tells the client library

void ApplicationModel::OnItsThread(const char* call) {
    if (world.sim.Self().number != thread)
        Fail(std::string(call) + " on another thread than its own");
    if (world.sim.Self().locks != 0)
        Fail(std::string(call) + " under a lock");
}

void ApplicationModel::Require(bool right, const char* call) {
    OnItsThread(call);
    if (!right)
        Fail(std::string(call) + " out of its order");
}

void ApplicationModel::Created(bool made) {
    Require(life == Life::NONE, "CreateClient");
    life = made ? Life::CREATED : Life::NONE;
}

void ApplicationModel::HandlerSet() {
    Require(life == Life::CREATED, "SetHandler");
    life = Life::WITH_HANDLER;
}

void ApplicationModel::Inits(const std::string& name) {
    Require(life == Life::WITH_HANDLER, "Init");
    if (name != "gateway-app")
        Fail("its name is " + name);
}

void ApplicationModel::Confirmed(bool accepted) {
    if (accepted)
        life = Life::CONFIRMED;
}

void ApplicationModel::Starts() {
    Require(life == Life::CONFIRMED, "Start");
    life = Life::STARTED;
    initial = true;
    hostChanged = false;
    owed.clear();
}

void ApplicationModel::Ticks() {
    Require(life == Life::STARTED && ready, "Tick");
    if (asked.has_value() && !*asked)
        Fail("has not asked after a tick whether the route has moved");
    asked = false;
    NoteKernel();
    const Time now = world.sim.Now();
    if (options.tick != 0 && now - optionsAt > 2 * SECOND && now - tickedAt < (options.tick - 1) * MILLISECOND)
        Fail("ticks after " + std::to_string((now - tickedAt) / MILLISECOND) + " ms, sooner than it was told to");
    const bool rests = options.tick == 0 && now - optionsAt > RESTLESS && cloud == true && where &&
                       where() == StackLibrary::State::ETHERNET && now - restlessAt > RESTLESS;
    if (rests && now - tickedAt < USUAL_PAUSE - MILLISECOND)
        Fail("ticks after " + std::to_string((now - tickedAt) / MILLISECOND) + " ms, and nothing is under way");
    if (where && where() != StackLibrary::State::ETHERNET)
        restlessAt = now;
    tickedAt = now;
}

void ApplicationModel::AsksWhetherMoved(bool moved, bool toCellular) {
    Require(life == Life::STARTED, "CloudReconnectNeeded");
    asked = true;
    const Time now = world.sim.Now();
    const auto state = where ? where() : StackLibrary::State::POKING_CELLULAR;
    toldOfCellular = moved ? toCellular : toldOfCellular && state >= StackLibrary::State::CELLULAR;
    if (moved) {
        movedAt = now;
        movedTo = toCellular ? "wwan0" : "eth0";
        routeHasLeft = false;
    }
    if (!moved || !toCellular)
        return;
    owesProbation = !fails.empty() && now - fails.back() < MEMORY - SECOND && link[1] == true && address[1] == true;
    fails.push_back(now);
}

void ApplicationModel::Stops() {
    Require(life >= Life::CREATED && life <= Life::STARTED, "Stop");
    if (terminatedAt == NEVER)
        Fail("stops, and nobody has told it to");
    if (life == Life::STARTED && !owed.empty())
        Fail("stops, and has not told what has become of the cloud");
    if (open)
        Fail("stops, and is still connected to the cloud");
    life = Life::STOPPED;
}

void ApplicationModel::DeInits() {
    Require(life == Life::STOPPED, "DeInit");
    life = Life::ENDED;
}

void ApplicationModel::Released() {
    Require(life == Life::ENDED, "the release of the client");
    life = Life::RELEASED;
}

void ApplicationModel::Says(AppStatus status) {
    Require(life == Life::STARTED, "AppStatusRequest");
    if (!initial) {
        if (status == AppStatus::BOOTING ? !owesBooting : status != AppStatus::READY || !booting)
            Fail("says what its state is, and it has not changed");
        owesBooting = false;
        booting = status == AppStatus::BOOTING;
        if (!booting && std::exchange(otherOptions, false))
            optionsAt = world.sim.Now(); // from when on the new ones count
        return;
    }
    if (status != AppStatus::READY)
        Fail("is not ready behind its start");
    initial = otherOptions = false;
    ready = true;
    readyAt = world.sim.Now();
    if (!enabled || !cloud || !link[0] || !link[1] || !address[0] || !address[1])
        Fail("is ready, and has not told the state of everything");
    if (failedBefore)
        Fail("is ready, and has not told of a failure");
}

void ApplicationModel::Take(std::optional<bool>& told, bool now, const char* what) {
    if (initial ? told.has_value() : told == now)
        Fail(std::string("tells the client library twice of ") + what);
    told = now;
}

void ApplicationModel::TakeCloud(bool connected) {
    if (initial) {
        Take(cloud, connected, "the cloud at its start");
        if (connected != open.has_value())
            Fail("tells a cloud at its start that is not so");
        return;
    }
    const bool again = csvTouched && connected == cloud && (owed.empty() || owed.front() != connected);
    repairs += again ? 1 : 0;
    if (again)
        return;
    if (owed.empty())
        Fail(std::string("tells the client library that the cloud is ") + (connected ? "connected" : "lost") +
             ", and nothing has happened");
    if (owed.front() != connected)
        Fail("tells the client library of the cloud in another order than it happened");
    owed.pop_front();
    cloud = connected;
}

void ApplicationModel::Reports(OrvEvent event) {
    Require(life == Life::STARTED, "EventUpdateRequest");
    restlessAt = world.sim.Now();
    ++efforts.events;
    switch (event) {
    case OrvEvent::CLOUD_CONNECTED:
    case OrvEvent::CLOUD_DISCONNECTED:
        TakeCloud(event == OrvEvent::CLOUD_CONNECTED);
        break;
    case OrvEvent::PANEL_CLOUD_ENABLED:
    case OrvEvent::PANEL_CLOUD_DISABLED:
        if ((event == OrvEvent::PANEL_CLOUD_ENABLED) == options.host.empty())
            Fail("tells the client library the wrong thing about whether there is a cloud");
        if (!initial && !std::exchange(hostChanged, false))
            Fail("tells the client library twice whether there is a cloud");
        enabled = event == OrvEvent::PANEL_CLOUD_ENABLED;
        break;
    case OrvEvent::ETHERNET_CONNECTED:
    case OrvEvent::ETHERNET_DISCONNECTED:
        Take(link[0], event == OrvEvent::ETHERNET_CONNECTED, "Ethernet's link");
        break;
    case OrvEvent::CELLULAR_CONNECTED:
    case OrvEvent::CELLULAR_DISCONNECTED:
        Take(link[1], event == OrvEvent::CELLULAR_CONNECTED, "Cellular's link");
        break;
    case OrvEvent::ETHERNET_IP_GAINED:
    case OrvEvent::ETHERNET_IP_LOST:
        Take(address[0], event == OrvEvent::ETHERNET_IP_GAINED, "Ethernet's address");
        break;
    case OrvEvent::CELLULAR_IP_GAINED:
    case OrvEvent::CELLULAR_IP_LOST:
        Take(address[1], event == OrvEvent::CELLULAR_IP_GAINED, "Cellular's address");
        break;
    case OrvEvent::FAILURE:
        if (initial ? !failedBefore : failuresOwed == 0)
            Fail("tells a failure that there was none of");
        if (initial)
            failedBefore = false;
        else
            --failuresOwed;
        break;
    }
    csvTouched = files.full;
}

// What is seen of it from outside

void ApplicationModel::ConnackRead(CloudSocket& socket) {
    NoteKernel();
    open = Connection{socket.source, &socket};
    saidConnected = false;
    changedBefore = std::exchange(changedAt, world.sim.Now());
    owed.push_back(true);
}

void ApplicationModel::TakesSignal(int number) {
    if (number != SIGUSR1)
        return;
    if (ready)
        ++failuresOwed;
    else
        failedBefore = true;
}

void ApplicationModel::NoteKernel() {
    const Time now = world.sim.Now();
    const std::string present = Network().DefaultInterface();
    const std::string former = std::exchange(route, present);
    if (former != present) {
        routeHasLeft = routeHasLeft || former == movedTo;
        routeChangedAt = restlessAt = now;
    }
    if (open && Network().OwnerOf(open->source).empty())
        homelessAt = now;
}

void ApplicationModel::NoteRoom() {
    const Time now = world.sim.Now();
    if (files.full) {
        statusStale = true;
        statusAt = now;
    } else if (hadNoRoom) {
        roomSince = now;
    }
    hadNoRoom = files.full;
}

void ApplicationModel::Closed(const CloudSocket& socket) {
    NoteKernel();
    const Time now = world.sim.Now();
    const bool bad = socket.broken || socket.brokenAt != NEVER || socket.silentFrom != NEVER || socket.hangs;
    const bool homeless = homelessAt != 0 && now - homelessAt < OWN_REASON + Allowance();
    const bool reasons = terminatedAt != NEVER || now - movedAt < OWN_REASON + Allowance() ||
                         now - routeChangedAt < OWN_REASON + Allowance() || now - reloadedAt < OWN_REASON + Allowance();
    if (!bad && !homeless && !reasons)
        Fail("gives up a connection that is good");
    if (stoppings > 0 && !bad && !sentDisconnect)
        Fail("ends, and does not say good-bye to the cloud");
    open.reset();
    // It ended in the same moment in which the application read the broker's answer: to that it was an attempt in vain.
    if (!saidConnected && !owed.empty()) {
        changedAt = changedBefore;
        owed.pop_back();
        return;
    }
    closing = Closing{reasons, bad || homeless};
    changedAt = now;
    owed.push_back(false);
}

void ApplicationModel::Logged(const LabLog::Record& record) {
    efforts.records += std::string(record.level) == "debug" ? 0 : 1;
    saidConnected = saidConnected || record.text.rfind("connected to the cloud, from ", 0) == 0;
    const std::string ended = "the cloud connection has ended: ";
    if (record.text.rfind(ended, 0) == 0) {
        const bool loss = std::string(record.level) == "warning";
        if (!closing)
            Fail("says that a connection has ended, and none has");
        if (loss ? !closing->mayBeLoss : !closing->mayBeOwn)
            Fail(loss ? "takes its own closing for a loss" : "takes a loss for its own closing");
        losses += loss ? 1 : 0;
        closing.reset();
        reason = record.text.substr(ended.size());
    }
    if (record.text.rfind("the WAN route has moved from ", 0) == 0)
        NoteMove(record.text);
    const Time now = world.sim.Now();
    // The end of a router's lifetime is news to it only when the kernel says so.
    if (record.text.rfind("the default route is now", 0) == 0 || record.text == "there is no default route")
        routeHeardAt = restlessAt = now;
    if (record.text.rfind("Ethernet is on probation", 0) == 0) {
        const auto begun = [&](Time one) { return now - one < LONG_MEMORY + Allowance(); };
        if (probation || std::count_if(fails.begin(), fails.end(), begun) < 2)
            Fail("puts an Ethernet on probation that has not failed again");
        probation = true;
        ++probations;
        owesProbation = false;
        probationAt = now;
    }
    if (record.text.rfind("Ethernet's probation is over", 0) == 0) {
        if (!probation)
            Fail("ends a probation that there was none of");
        if (record.text.find("proved itself") != std::string::npos && now - probationAt < SHORTEST_PROBATION - SLACK)
            Fail("takes Ethernet for proved before its time");
        probation = false;
        probationAt = now;
    }
}

/// It is said once, and each begins where the last one led.
void ApplicationModel::NoteMove(const std::string& line) {
    const bool toCellular = line.find(" to Cellular (") != std::string::npos;
    const std::string from = toCellular ? "eth0" : "wwan0";
    if (line.find("(" + from + ") to ") == std::string::npos || (!settled.empty() && settled != from))
        Fail("says a move of the route that there was none of");
    settled = toCellular ? "wwan0" : "eth0";
    followed = line.find("still leads elsewhere") == std::string::npos;
    ++moves[toCellular ? 1 : 0];
}

void ApplicationModel::Replaced(const std::string& path) {
    if (path == FakeFiles::STATUS) {
        const std::string text = files.Text(path);
        if (text.size() < 3 || text.front() != '{' || text.substr(text.size() - 2) != "}\n")
            Fail("the status file holds a part of a state: \"" + text + "\"");
        statusWritten = true;
        statusStale = false;
        statusAt = world.sim.Now();
        ++efforts.statusWrites;
    }
}

void ApplicationModel::Notified(const std::string& message) {
    if (message.rfind("READY=1", 0) == 0) {
        if (++readies > 1)
            Fail("tells the service manager twice that it is ready");
        statusAt = world.sim.Now();
    }
    if (message.rfind("STOPPING=1", 0) == 0 && (++stoppings > 1 || terminatedAt == NEVER))
        Fail("tells the service manager that it stops, and does not");
    if (message.rfind("READY=1", 0) == 0 || message == "WATCHDOG=1")
        pingedAt = world.sim.Now();
    const std::size_t at = message.find("STATUS=");
    if (at != std::string::npos)
        shown = message.substr(at + 7);
}

// What follows

void ApplicationModel::TimeHasAdvanced(Time by) {
    NoteKernel();
    if (by < MICROSECOND || life == Life::RELEASED)
        return;
    NoteRoom();
    if (readies > 0 && world.sim.Now() + by - statusAt > BEAT + Allowance())
        Fail("does not write its status file every ten seconds");
    if (ready && !owed.empty())
        Fail("does not tell the client library what has become of the cloud");
    if (owesBooting || booting)
        Fail("does not say that it is booting while it reads its options anew, or not that it is ready again");
    if (ready && hostChanged)
        Fail("does not tell the client library whether there is a cloud");
    if (ready)
        CheckTold();
    if (owesProbation && link[1] == true && address[1] == true)
        Fail("does not put an Ethernet on probation that has failed again");
    owesProbation = false;
    if (failuresOwed > 0 && ready)
        Fail("does not tell of a failure");
    if (statusWritten && !statusStale)
        CheckStatus();
    if (ready)
        CheckShown();
    if (ready)
        CheckTicks(world.sim.Now() + by);
    if (ready)
        CheckCsv();
    if (readies > 0)
        CheckPath();
    CheckProbation();
    if (pingedAt != NEVER && world.sim.Now() + by - pingedAt > WATCHDOG + Allowance())
        Fail("does not tell the service manager that it lives");
}

Time ApplicationModel::LongestPause() const {
    using State = StackLibrary::State;
    if (options.tick != 0)
        return options.tick * MILLISECOND;
    const Time onCellular = world.sim.Now() - movedAt;
    switch (where ? where() : State::POKING_CELLULAR) {
    case State::CELLULAR:
        if (!toldOfCellular)
            return cloud == true ? USUAL_PAUSE : 2 * SECOND;
        return onCellular < 180 * SECOND ? USUAL_PAUSE : onCellular < 900 * SECOND ? SECOND : 2 * SECOND;
    case State::ETHERNET:
        return cloud == true ? USUAL_PAUSE : 2 * SECOND;
    default:
        return 2 * SECOND;
    }
}

/// @param next until then it waits
void ApplicationModel::CheckTicks(Time next) {
    if (next - std::max({tickedAt, readyAt, optionsAt, restlessAt}) > LongestPause() + Allowance())
        Fail("does not tick");
}

/// What has been said and done about the route, once it has stood for a while.
void ApplicationModel::CheckPath() {
    const Time now = world.sim.Now();
    const Time latest = std::max({routeChangedAt, routeHeardAt, movedAt, changedAt, probationAt, optionsAt});
    if (now - latest < FOLLOWED + Allowance() || Network().HasSilentExpiry())
        return;
    const bool isWan = route == "eth0" || route == "wwan0";
    if (isWan && settled.empty())
        settled = route; // it knows of this one by now, so it tells of the next
    if (isWan && followed && settled != route)
        Fail("has not said that the route has moved to " + route);
    if (!open)
        return;
    const std::string interface = Network().OwnerOf(open->source);
    // Where the connection manager has taken the route by itself, a good connection stays.
    if (fourOnly && isWan && route == movedTo && !routeHasLeft && routeChangedAt < movedAt + FOLLOWED &&
        interface != route)
        Fail("stays connected over " + interface + " behind a move of the route");
    const int period = route == "wwan0" && !probation ? options.keepAliveCellular : options.keepAliveEthernet;
    if (open->socket->Option(TCP_KEEPIDLE) != period)
        Fail("asks for a sign of life every " + std::to_string(open->socket->Option(TCP_KEEPIDLE)) +
             " s and not every " + std::to_string(period));
}

void ApplicationModel::CheckProbation() {
    if (probation && ready && !(link[1] == true && address[1] == true))
        Fail("keeps an Ethernet on probation, and there is no Cellular");
}

void ApplicationModel::CheckCsv() {
    const Time now = world.sim.Now();
    if (!csv || repairs >= FAST_REPAIRS || files.Text(FakeFiles::CSV) == csv()) {
        csvWrongSince = NEVER;
        return;
    }
    csvWrongSince = std::min(csvWrongSince, now);
    if (files.full)
        return;
    // What found no room is tried again after 1, 2, 4 s and so on, at last once a minute. Room for a moment between two
    // attempts does not begin that anew.
    const Time wrongFor = roomSince - csvWrongSince;
    const Time room = wrongFor < 0 ? 0 : roomSince + std::min(wrongFor + SECOND, LONGEST_REPAIR);
    if (now > std::max(csvWrongSince, room) + REPAIRED + Allowance())
        Fail("leaves the client library's status file as another program has written it");
}

void ApplicationModel::CheckTold() {
    const NetworkModel network = Network();
    for (std::size_t index = 0; index < 2; ++index) {
        if (link[index] != network.Running(NAMES[index]))
            Fail(std::string("the client library does not know the link of ") + NAMES[index]);
        if (network.HasSilentExpiry())
            continue;
        const bool has = network.HasAddress(NAMES[index]) && !(index == 0 && probation);
        if (address[index] != has)
            Fail(std::string("the client library does not know whether ") + NAMES[index] + " has an address");
    }
    if (cloud != open.has_value())
        Fail("the client library does not know whether the cloud is connected");
}

std::optional<std::string> ApplicationModel::Value(const std::string& json, const std::string& section,
                                                   const std::string& name) {
    const std::size_t begin = section.empty() ? 0 : json.find("\"" + section + "\":{");
    if (begin == std::string::npos)
        return std::nullopt;
    std::size_t at = json.find("\"" + name + "\":", begin);
    if (at == std::string::npos)
        return std::nullopt;
    at += name.size() + 3;
    if (json[at] == '"')
        return json.substr(at + 1, json.find('"', at + 1) - at - 1);
    return json.substr(at, json.find_first_of(",}", at) - at);
}

void ApplicationModel::CheckField(const std::string& text, const char* section, const char* name,
                                  const std::string& wanted) {
    const std::optional<std::string> found = Value(text, section, name);
    if (found != wanted)
        Fail(std::string("the status file says ") + section + "." + name + " \"" + found.value_or("nothing") +
             "\", and it is \"" + wanted + "\"");
}

void ApplicationModel::CheckStatus() {
    const std::string text = files.Text(FakeFiles::STATUS);
    const NetworkModel network = Network();
    CheckField(text, "", "running", "true");
    CheckField(text, "", "session_ready", ready ? "true" : "false");
    CheckField(text, "cloud", "state", options.host.empty() ? "disabled" : open ? "connected" : "disconnected");
    const std::string source = open ? open->source : "";
    const std::string interface = open ? network.OwnerOf(source) : "";
    CheckField(text, "cloud", "source", source);
    CheckField(text, "cloud", "interface", interface);
    CheckField(text, "cloud", "path", open ? PathOf(interface) : "none");
    CheckField(text, "cloud", "family", !open ? "" : ScriptedCloud::IsSix(source) ? "IPv6" : "IPv4");
    CheckField(text, "cloud", "host", options.host);
    if (open)
        CheckField(text, "cloud", "last_failure", "");
    if (open || !reason.empty())
        CheckField(text, "cloud", "reason", open ? "connected over " + Shown(interface) : reason);
    const double since = std::atof(Value(text, "cloud", "since_monotonic").value_or("0").c_str());
    const double late = since - static_cast<double>(changedAt) / SECOND;
    if (late < -0.002 || late > static_cast<double>(Allowance()) / SECOND + 0.1)
        Fail("the status file says that the cloud is so since another time than it is, " + std::to_string(late) + " s");
    CheckField(text, "cloud", "host", options.host);
    CheckField(text, "counters", "cloud_losses", std::to_string(losses));
    CheckField(text, "counters", "fail_overs", std::to_string(moves[1]));
    CheckField(text, "counters", "returns", std::to_string(moves[0]));
    if (!network.HasSilentExpiry()) {
        CheckField(text, "route", "interface", route);
        CheckField(text, "route", "path", route.empty() ? "none" : PathOf(route));
    }
    CheckField(text, "route", "expected", ConnInterfaceString);
    CheckField(text, "route", "ethernet_on_probation", probation ? "true" : "false");
}

void ApplicationModel::CheckShown() {
    const std::string interface = open ? Network().OwnerOf(open->source) : "";
    const std::string begin = open ? "cloud over " + Shown(interface) : "no cloud connection";
    if (shown.rfind(begin, 0) != 0)
        Fail("the service manager is shown \"" + shown + "\", and not \"" + begin + "\"");
    if ((shown.find("on probation") != std::string::npos) != probation)
        Fail("the service manager is shown a wrong probation: \"" + shown + "\"");
}

void ApplicationModel::Returns() {
    if (terminatedAt == NEVER)
        Fail("ends, and nobody has told it to");
    const Time took = world.sim.Now() - terminatedAt;
    if (took > LONGEST_END + 20 * disk + SLACK + world.sim.StallTime() - stalledBefore)
        Fail("takes " + std::to_string(took / MILLISECOND) + " ms to end");
    if (life != Life::RELEASED && life != Life::NONE)
        Fail("ends, and has not ended the session");
    if (open)
        Fail("ends, and is still connected to the cloud");
    if (readies != 1 || stoppings != 1)
        Fail("ends, and has not told the service manager so");
    const std::string text = files.Text(FakeFiles::STATUS);
    if (!files.full && !statusStale && statusWritten)
        CheckField(text, "", "running", "false");
}

} // namespace OrvLab
