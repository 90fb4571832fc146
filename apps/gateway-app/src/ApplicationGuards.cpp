// SPDX-License-Identifier: Apache-2.0
// What the application does when the route moves, and when other programs touch the default route or the status file.
#include "Application.h"

#include "Clock.h"

#include <CommonUtils/Networking/ConnmanCommands.h>
#include <ConnInterfaceString.h>
#include <GatewayMainBaseUnits/IpInterfacesMapping.h>

#include <system_error>

namespace GatewayApp {

using CommonUtils::Networking::ConnmanCommands;

namespace {

constexpr const char* STATUS_CSV = "/var/tmp/new_enterprise_statuses.csv";

std::string InterfaceName(const char* path) {
    return GatewayMainBaseUnits::IpInterfacesMapping::GetInstance().GetInterfaceName(path);
}

} // namespace

void Application::OnRouteMoved() {
    // In this moment, before the next tick, the library sees the order that it has waited for.
    const bool toCellular = ConnmanCommands::GetInstance().GetTopPriorityInterface() == InterfaceName("Cellular");
    const RouteMoves::Path path = toCellular ? RouteMoves::Path::CELLULAR : RouteMoves::Path::ETHERNET;
    std::optional<std::chrono::steady_clock::duration> atMost;
    if (toCellular && pokeExplainer.CellularPokeBegan())
        atMost = Now() - *pokeExplainer.CellularPokeBegan();
    RecordPoke(path, true, atMost, "", "the library has moved the route");
    moves.OrderedByLibrary(path, Now());
    FollowMoves();
    rhythm.RouteHasMoved(toCellular, Now());
    const std::string interface = InterfaceName(toCellular ? "Cellular" : "Ethernet");
    // An order of this application that came later than the library's would take the move back.
    if (contradiction.LibraryHasMoved(Now()))
        ConnmanCommands::GetInstance().SetTopPriorityInterface(interface);
    pokeExplainer.RouteHasMoved(toCellular);
    // Before the next tick, which would begin a poke over Ethernet.
    ethernetGuard.RouteHasMoved(toCellular);
    // What began after the default route had moved is on the new path already. Usually the kernel has moved it by now.
    const bool followed = network.DefaultInterface() == interface;
    awaitedDefault = followed ? std::string() : interface;
    const bool begun = followed && cloud.BegunSince(defaultRouteSince);
    logger.Debug() << "the WAN route has changed, "
                   << (begun ? "the cloud connection has begun there" : "connecting to the cloud anew");
    Record("reconnect", {{"begun", JsonBool(begun)}});
    ownDoing = true;
    if (!begun)
        cloud.Reopen("the WAN route has changed");
    ownDoing = false;
    ShowStatus();
}

/// On probation Ethernet gets the route back as soon as the cloud is lost on Cellular and not there.
KeepAlive Application::CloudKeepAlive() const {
    const bool cellular = network.DefaultInterface() == InterfaceName("Cellular") && !ethernetGuard.OnProbation();
    return KeepAlive(cellular ? options.keepAliveCellular : options.keepAliveEthernet);
}

void Application::WarnOfCredentials() {
    for (const std::string& warning : CredentialWarnings(options.cloud))
        logger.Warning() << warning;
}

void Application::FollowCloudPath() {
    if (cloudPath == ConnInterfaceString)
        return;
    cloudPath = ConnInterfaceString;
    logger.Debug() << "the cloud connection is expected over " << cloudPath;
    Record("path", {});
    statusWriter.Changed();
    // A return that ConnMan does not carry out within three seconds the library gives up, and tells of no move.
    if (cloudPath == "Ethernet" && rhythm.IsOnCellular()) {
        rhythm.RouteHasMoved(false, Now());
        pokeExplainer.RouteHasMoved(false);
    }
}

void Application::CheckDefaultRoute() {
    auto& connman = ConnmanCommands::GetInstance();
    const std::string& kernel = network.DefaultInterface();
    const std::string top = connman.GetTopPriorityInterface();
    const RouteContradiction::Step step = contradiction.Observe(kernel, top, Now());
    const std::string& wanted = contradiction.WanTop();
    if (step == RouteContradiction::Step::CHANGE_ORDER) {
        logger.Warning()
            << "the default route leads over " << kernel << ", but ConnMan has " << top
            << " on top: another program has replaced it, or the news of ConnMan has stopped coming. ConnMan is "
            << "asked to set it anew; keep other programs from setting default routes (ip monitor route "
            << "shows when it happens)";
        const std::string ethernet = InterfaceName("Ethernet");
        connman.SetTopPriorityInterface(top == ethernet ? InterfaceName("Cellular") : ethernet);
    } else if (step == RouteContradiction::Step::RESTORE_ORDER) {
        connman.SetTopPriorityInterface(wanted);
    } else if (step == RouteContradiction::Step::GIVE_UP) {
        logger.Error() << "the default route still leads over " << kernel << " and not over " << wanted
                       << ": remove the foreign one (ip route show default, ip route del default dev " << kernel
                       << "), or start ConnMan anew";
    }
}

void Application::WatchCsv() {
    try {
        csvWatch = std::make_unique<CsvWatch>(loop, STATUS_CSV, [this] { RepairCsv(); });
    } catch (const std::system_error& error) {
        logger.Warning() << "what other programs write into " << STATUS_CSV << " stays: " << error.what();
    }
}

void Application::RepairCsv() {
    if (csvWatch->VainWrites() > 0) {
        if (csvWatch->VainWrites() == 2) // the first may have been overtaken by another program's
            logger.Warning() << STATUS_CSV
                             << " does not hold what was written: its folder is full or read-only, or the "
                             << "file belongs to another user (df, ls -l); it is tried again";
        SendEvent(CloudState());
        return;
    }
    if (!csvForeign)
        logger.Info() << STATUS_CSV << " was written or removed by another program, another client of the library it "
                      << "may be; it is put right, now and from now on";
    csvForeign = true;
    if (csvWatch->IsSlowedDown() && !csvQuarrel) {
        csvQuarrel = true;
        logger.Warning() << STATUS_CSV << " is written by another program again and again; it is put right every five "
                         << "seconds only. Who does it: fuser " << STATUS_CSV << ", or auditctl -w " << STATUS_CSV;
    }
    SendEvent(CloudState()); // every event has the library write the file
}

} // namespace GatewayApp
