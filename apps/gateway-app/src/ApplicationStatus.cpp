// SPDX-License-Identifier: Apache-2.0
// What the application tells about itself: its status file, and a line for each move of the route.
#include "Application.h"

#include "Clock.h"

#include <CommonUtils/Networking/ConnmanCommands.h>
#include <ConnInterfaceString.h>
#include <GatewayMainBaseUnits/IpInterfacesMapping.h>
#if __has_include(<OrvPlatform/Counters.h>)
#include <OrvPlatform/Counters.h>
#define PLATFORM_COUNTS
#endif

#include <cstdio>
#include <utility>

namespace GatewayApp {

using Path = RouteMoves::Path;
using Seconds = std::chrono::duration<double>;

namespace {

constexpr std::size_t POKES_KEPT = 5;

std::string InterfaceName(Path path) {
    const char* const role = path == Path::ETHERNET ? "Ethernet" : "Cellular";
    return GatewayMainBaseUnits::IpInterfacesMapping::GetInstance().GetInterfaceName(role);
}

std::string Word(Path path) {
    switch (path) {
    case Path::NONE:
        return "none";
    case Path::ETHERNET:
        return "ethernet";
    case Path::CELLULAR:
        return "cellular";
    case Path::OTHER:
        break;
    }
    return "other";
}

std::string Shown(Path path) {
    return (path == Path::ETHERNET ? "Ethernet (" : "Cellular (") + InterfaceName(path) + ")";
}

std::string Shown(std::chrono::steady_clock::duration time) {
    char text[32];
    std::snprintf(text, sizeof(text), "%.1f s", Seconds(time).count());
    return text;
}

} // namespace

Path Application::PathOf(const std::string& interface) const {
    if (interface.empty())
        return Path::NONE;
    if (interface == InterfaceName(Path::ETHERNET))
        return Path::ETHERNET;
    return interface == InterfaceName(Path::CELLULAR) ? Path::CELLULAR : Path::OTHER;
}

void Application::FollowMoves() {
    const auto now = Now();
    const std::optional<RouteMoves::Move> move = moves.Take(now);
    // Not with the ticks, which there are none of before the gateway's broker is there.
    if (const auto due = moves.Due(); due > now)
        moveTimer.Once(std::chrono::ceil<std::chrono::milliseconds>(*due - now));
    if (!move)
        return;
    const bool toCellular = move->to == Path::CELLULAR;
    ++(toCellular ? runStatus.counters.failOvers : runStatus.counters.returns);
    std::string reason = ReasonOf(*move);
    if (!move->followed)
        reason += ", but the kernel's default route still leads elsewhere";
    auto took = move->ended - move->begun;
    std::string time = "the switch took " + Shown(took);
    if (toCellular && move->ordered) {
        took = move->ended - cloudLostAt;
        time += ", " + Shown(took) + " since the loss";
    } else if (!toCellular) {
        time += " after " + Shown(move->begun - lastMoveAt) + " on Cellular";
    }
    lastMoveAt = move->ended;
    logger.Info() << "the WAN route has moved from " << Shown(move->from) << " to " << Shown(move->to) << ": " << reason
                  << "; " << time;
    runStatus.lastMove =
        RunStatus::Move{Moment::Now(), Word(move->from), Word(move->to), std::move(reason), Seconds(took).count()};
    statusWriter.Changed();
}

void Application::FollowHindrance() {
    using Missing = FailOverHindrance::Missing;
    if (neverMoves)
        return;
    constexpr auto cellular = WanInterfaces::Path::CELLULAR;
    const bool isWanted = !cloud.Connected() && !options.cloud.host.empty() && moves.Route() != Path::CELLULAR;
    auto missing = Missing::NOTHING;
    if (!network.Wan().Exists(cellular))
        missing = Missing::INTERFACE;
    else if (!network.Wan().Running(cellular))
        missing = Missing::LINK;
    else if (!network.Wan().HasAddress(cellular))
        missing = Missing::ADDRESS;
    else if (isWanted && CommonUtils::Networking::ConnmanCommands::GetInstance().GetTopPriorityInterface().empty())
        missing = Missing::SERVICE;
    const std::optional<std::string> line = hindrance.Observe(isWanted, missing, Now());
    if (line) {
        logger.Warning() << *line;
        runStatus.hindrance = *line;
        statusWriter.Changed();
    } else if (!isWanted && !runStatus.hindrance.empty()) {
        runStatus.hindrance.clear();
        statusWriter.Changed();
    }
}

void Application::OnPokeFailed(const PokeExplainer::Failure& failure) {
    const bool overCellular = failure.path == PokeDiagnosis::Path::CELLULAR;
    if (overCellular)
        runStatus.hindrance = failure.line;
    RecordPoke(overCellular ? Path::CELLULAR : Path::ETHERNET, false, failure.took, failure.reason,
               "a connection of the application's own to the endpoint");
}

std::string Application::ReasonOf(const RouteMoves::Move& move) const {
    const bool toCellular = move.to == Path::CELLULAR;
    if (move.ordered && toCellular)
        return "the cloud was lost on Ethernet (" + lastCloudLoss + ") and a poke over Cellular succeeded";
    if (move.ordered)
        return "a poke over Ethernet succeeded";
    const auto left = toCellular ? WanInterfaces::Path::ETHERNET : WanInterfaces::Path::CELLULAR;
    const std::string name = toCellular ? "Ethernet" : "Cellular";
    if (!network.Wan().Running(left))
        return name + " has no link, and ConnMan took the other interface";
    if (!network.Wan().HasAddress(left))
        return name + " has no address, and ConnMan took the other interface";
    return "not by this application: ConnMan's order has changed, or another program has set the route";
}

void Application::RecordPoke(Path path, bool good, std::optional<std::chrono::steady_clock::duration> atMost,
                             const std::string& text, const std::string& knownFrom) {
    RunStatus::Poke poke;
    poke.at = Moment::Now();
    poke.path = Word(path);
    poke.good = good;
    if (good)
        poke.code = 0;
    if (atMost)
        poke.atMostSeconds = Seconds(*atMost).count();
    poke.text = text;
    poke.knownFrom = knownFrom;
    runStatus.pokes.push_front(std::move(poke));
    if (runStatus.pokes.size() > POKES_KEPT)
        runStatus.pokes.pop_back();
    statusWriter.Changed();
}

std::string Application::StatusText() {
    const auto now = Now();
    runStatus.name = options.name;
    runStatus.sessionReady = started;
    runStatus.cloudHost = options.cloud.host;
    runStatus.cloudState = options.cloud.host.empty() ? "disabled" : (cloud.Connected() ? "connected" : "disconnected");
    runStatus.cloudInterface = cloudInterface;
    runStatus.cloudSource = cloud.Source();
    runStatus.cloudFamily = cloud.Connected() ? FamilyOf(cloud.Source()) : std::string();
    // A connection from an address that is no WAN interface's runs elsewhere.
    runStatus.cloudPath =
        cloud.Connected() ? Word(cloudInterface.empty() ? Path::OTHER : PathOf(cloudInterface)) : "none";
    runStatus.cloudFailure = lastCloudFailure;
    runStatus.routeInterface = network.DefaultInterface();
    runStatus.routePath = Word(moves.Route());
    runStatus.expectedPath = ConnInterfaceString;
    runStatus.probation = ethernetGuard.OnProbation();
    runStatus.ticks = tickDurations.Count();
    runStatus.longestTickUs = std::chrono::duration_cast<std::chrono::microseconds>(tickDurations.Longest()).count();
    runStatus.counters.secondsOnEthernet = Seconds(moves.On(Path::ETHERNET, now)).count();
    runStatus.counters.secondsOnCellular = Seconds(moves.On(Path::CELLULAR, now)).count();
    if (const auto link = network.Find(InterfaceName(Path::CELLULAR))) {
        cellularReceived.Observe(link->receivedBytes);
        cellularSent.Observe(link->sentBytes);
    }
#ifdef PLATFORM_COUNTS
    const OrvPlatform::Counters lost = OrvPlatform::ReadCounters();
    runStatus.counters.brokerLosses = lost.brokerLosses;
    runStatus.counters.refusedPublications = lost.refusedPublications;
    runStatus.counters.lostLogRecords = lost.lostLogRecords;
#endif
    runStatus.counters.cellularReceivedBytes = cellularReceived.Value();
    runStatus.counters.cellularSentBytes = cellularSent.Value();
    return runStatus.Json(Moment::Now());
}

} // namespace GatewayApp
