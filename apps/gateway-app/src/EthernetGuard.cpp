// SPDX-License-Identifier: Apache-2.0
#include "EthernetGuard.h"

#include "Clock.h"
#include "log/LogLevel.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace GatewayApp {

using namespace std::chrono_literals;
using OrvStackSdk::OrvEvent;

namespace {

const char* Text(EthernetProbation::End end) {
    switch (end) {
    case EthernetProbation::End::NONE:
        break;
    case EthernetProbation::End::PROVED:
        return "it has proved itself";
    case EthernetProbation::End::CELLULAR_LOST:
        return "Cellular is lost";
    case EthernetProbation::End::CLOUD_LOST:
        return "it reaches the cloud and Cellular does not";
    case EthernetProbation::End::CLOUD_LOST_FOR_LONG:
        return "the cloud has been away for a quarter of an hour";
    case EthernetProbation::End::MOVED:
        return "the route has moved there";
    }
    return "";
}

} // namespace

EthernetGuard::EthernetGuard(EventLoop& eventLoop, std::string ethernetInterface, CloudSettings cloudSettings,
                             Report reportEvent, OnLifted onProbationLifted, TryCloud tryCloudNow)
    : interface(std::move(ethernetInterface)),
      report(std::move(reportEvent)),
      onLifted(std::move(onProbationLifted)),
      tryCloud(std::move(tryCloudNow)),
      logger("GatewayApp", OrvLog::INFO),
      settings(std::move(cloudSettings)),
      prover(eventLoop),
      timer(eventLoop, [this] { OnTimer(); }) {}

EthernetGuard::~EthernetGuard() = default;

void EthernetGuard::InterfacesAre(const WanInterfaces& wan) {
    const bool was = probation.Active();
    hasAddress = wan.HasAddress(WanInterfaces::Path::ETHERNET);
    probation.EthernetIs(wan.Usable(WanInterfaces::Path::ETHERNET), Now());
    probation.CellularIs(wan.Usable(WanInterfaces::Path::CELLULAR), Now());
    AfterChange(was);
}

void EthernetGuard::RouteHasMoved(bool toCellular) {
    connectedSinceMove = false;
    brokerNamed = false;
    lastFailure.clear();
    if (!toCellular) {
        const bool was = probation.Active();
        probation.MovedToEthernet(Now());
        return AfterChange(was);
    }
    if (probation.MovedToCellular(Now())) {
        logger.Warning() << "Ethernet is on probation: the cloud was lost there again. It counts as without an address "
                            "until it has proved itself, in "
                         << std::chrono::ceil<std::chrono::minutes>(probation.Length()).count()
                         << " min at the earliest";
        if (hasAddress)
            report(OrvEvent::ETHERNET_IP_LOST);
    }
    AfterChange(probation.Active());
}

void EthernetGuard::CloudIs(bool connected) {
    connectedSinceMove = connectedSinceMove || connected;
    probation.CloudIs(connected, Now());
    AfterChange(probation.Active());
}

void EthernetGuard::CloudRefused() {
    probation.CloudRefused();
    AfterChange(probation.Active());
}

void EthernetGuard::CloudFailed() {
    const bool was = probation.Active();
    probation.CloudFailed(Now());
    AfterChange(was);
}

void EthernetGuard::SettingsAre(const CloudSettings& cloudSettings) {
    settings = cloudSettings;
}

bool EthernetGuard::IsAboutAddress(OrvEvent event) {
    return event == OrvEvent::ETHERNET_IP_GAINED || event == OrvEvent::ETHERNET_IP_LOST;
}

void EthernetGuard::OnTimer() {
    const bool was = probation.Active();
    probation.Passed(Now());
    if (const auto proof = probation.Due(Now())) {
        prover.Begin(settings, interface, proof->hold, [this](const PathProver::Result& result) { OnProof(result); });
    }
    AfterChange(was);
}

void EthernetGuard::OnProof(const PathProver::Result& result) {
    const bool was = probation.Active();
    // A reason once: while Cellular does not reach the cloud a proof comes every few seconds.
    if (result.good || result.failure != lastFailure)
        logger.Info() << "proof over " << interface << (result.good ? ": good" : ": " + result.failure);
    lastFailure = result.failure;
    if (!result.connected && !connectedSinceMove && !brokerNamed) {
        brokerNamed = true;
        logger.Warning() << "the cloud's broker " << settings.host << ":" << settings.port
                         << " answers over neither interface, though Cellular has just been proved: the fault is the "
                            "broker's, and no move of the route cures it";
    }
    const bool tryIt = probation.Proved(result.good, Now());
    AfterChange(was);
    if (tryIt)
        tryCloud();
}

void EthernetGuard::AfterChange(bool wasActive) {
    if (wasActive && !probation.Active())
        Lifted();
    const std::optional<EthernetProbation::Time> next = probation.NextDue();
    if (!next)
        return timer.Stop();
    const auto wait = std::chrono::ceil<std::chrono::milliseconds>(*next - Now());
    timer.Once(std::max<std::chrono::milliseconds>(wait, 0ms));
}

void EthernetGuard::Lifted() {
    prover.Stop();
    logger.Info() << "Ethernet's probation is over: " << Text(probation.Ended());
    if (hasAddress)
        report(OrvEvent::ETHERNET_IP_GAINED);
    onLifted();
}

} // namespace GatewayApp
