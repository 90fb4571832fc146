// SPDX-License-Identifier: Apache-2.0
#include "PokeExplainer.h"

#include "Clock.h"
#include "log/LogLevel.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace GatewayApp {

using namespace std::chrono_literals;
using OrvStackSdk::OrvEvent;
using Path = PokeDiagnosis::Path;

namespace {

const char* Remedy(PathProver::Cause cause) {
    switch (cause) {
    case PathProver::Cause::OTHER:
        break;
    case PathProver::Cause::NAME:
        return ". Do the name servers of its service answer (connmanctl services SERVICE)?";
    case PathProver::Cause::ROUTE:
        return ". Is there a route for connections bound to it: does orv-source-routes run (ip rule)?";
    }
    return "";
}

} // namespace

PokeExplainer::PokeExplainer(EventLoop& eventLoop, std::string ethernet, std::string cellular,
                             const std::string& endpoint, OnFailure failureReceiver)
    : ethernetName(std::move(ethernet)),
      cellularName(std::move(cellular)),
      onFailure(std::move(failureReceiver)),
      settings(SettingsOfEndpoint(endpoint)),
      logger("GatewayApp", OrvLog::INFO),
      prover(eventLoop),
      timer(eventLoop, [this] { OnTimer(); }) {}

void PokeExplainer::Reported(OrvEvent event) {
    if (event == OrvEvent::CLOUD_CONNECTED || event == OrvEvent::CLOUD_DISCONNECTED)
        diagnosis.CloudIs(event == OrvEvent::CLOUD_CONNECTED, Now());
    else if (event == OrvEvent::ETHERNET_IP_GAINED || event == OrvEvent::ETHERNET_IP_LOST)
        diagnosis.HasAddress(Path::ETHERNET, event == OrvEvent::ETHERNET_IP_GAINED, Now());
    else if (event == OrvEvent::CELLULAR_IP_GAINED || event == OrvEvent::CELLULAR_IP_LOST)
        diagnosis.HasAddress(Path::CELLULAR, event == OrvEvent::CELLULAR_IP_GAINED, Now());
    AfterChange();
}

void PokeExplainer::RouteHasMoved(bool toCellular) {
    diagnosis.RouteHasMoved(toCellular, Now());
    AfterChange();
}

void PokeExplainer::AfterChange() {
    const std::optional<PokeDiagnosis::Time> next = diagnosis.NextDue();
    if (settings.host.empty() || !next) {
        lastReported.clear();
        prover.Stop();
        return timer.Stop();
    }
    timer.Once(std::max(std::chrono::ceil<std::chrono::milliseconds>(*next - Now()), 0ms));
}

void PokeExplainer::OnTimer() {
    if (const auto path = diagnosis.Due(Now())) {
        proofBegun = Now();
        prover.Begin(settings, *path == Path::ETHERNET ? ethernetName : cellularName, 0s,
                     [this, path = *path](const PathProver::Result& result) { OnProof(path, result); });
    }
    AfterChange();
}

void PokeExplainer::OnProof(Path path, const PathProver::Result& result) {
    if (result.good || !diagnosis.Pokes(path))
        return;
    const std::string line = "over " + (path == Path::ETHERNET ? ethernetName : cellularName) + " the endpoint " +
                             settings.host + " does not prove the path to the cloud: " + result.failure +
                             Remedy(result.cause);
    onFailure({path, Now() - proofBegun, result.failure, line});
    if (line == lastReported)
        return;
    lastReported = line;
    if (result.tls || result.cause != PathProver::Cause::OTHER)
        logger.Warning() << line;
    else
        logger.Info() << line;
}

} // namespace GatewayApp
