// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "EthernetProbation.h"
#include "EventLoop.h"
#include "PathProver.h"
#include "WanInterfaces.h"

#include <CommonUtils/Logger.h>

#include <functional>
#include <string>

namespace GatewayApp {

/// Carries out what EthernetProbation decides: tries the proofs, reports Ethernet's address as lost and as gained
/// again, and says so in the log. One thread.
class EthernetGuard {
public:
    /// Brings an event to the client library; called inside the operations below, and from the loop.
    using Report = std::function<void(OrvStackSdk::OrvEvent event)>;
    /// A probation has ended; called as Report is.
    using OnLifted = std::function<void()>;
    /// Has the cloud connection begin an attempt now, over the path that has the route; called from the loop.
    using TryCloud = std::function<void()>;

    EthernetGuard(EventLoop& eventLoop, std::string ethernetInterface, CloudSettings cloudSettings, Report reportEvent,
                  OnLifted onProbationLifted, TryCloud tryCloudNow);
    ~EthernetGuard();

    /// @name What has happened
    /// @{
    /// To be told before the events that follow from it are reported: Ethernet must be seen again before Cellular is
    /// seen lost, or the gateway would look cut off for a moment.
    void InterfacesAre(const WanInterfaces& wan);
    void RouteHasMoved(bool toCellular);
    void CloudIs(bool connected);
    void CloudRefused();
    /// An attempt to connect has failed otherwise.
    void CloudFailed();
    void SettingsAre(const CloudSettings& cloudSettings);
    /// @}

    /// Of Ethernet, of which this class tells by itself while there is a probation.
    static bool IsAboutAddress(OrvStackSdk::OrvEvent event);
    /// Ethernet's address is reported as lost, whatever it is.
    bool OnProbation() const { return probation.Active(); }

private:
    void OnTimer();
    void AfterChange(bool wasActive);
    void OnProof(const PathProver::Result& result);
    void Lifted();

    const std::string interface;
    const Report report;
    const OnLifted onLifted;
    const TryCloud tryCloud;
    CommonUtils::Logger logger;
    CloudSettings settings;
    EthernetProbation probation;
    PathProver prover;
    Timer timer;
    bool hasAddress = false;
    bool connectedSinceMove = false;
    bool brokerNamed = false;
    std::string lastFailure; // of a proof, as logged
};

} // namespace GatewayApp
