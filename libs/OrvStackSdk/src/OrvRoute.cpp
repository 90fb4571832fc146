// SPDX-License-Identifier: Apache-2.0
#include "OrvRoute.h"

#include "LogLevel.h"
#include "OrvTopics.h"
#include "StopDelivery.h"

#include <atomic>
#include <stdexcept>
#include <utility>

namespace OrvStackSdk {

namespace {

using CommonUtils::Networking::ConnmanCommands;
using GatewayMainBaseUnits::IpInterfacesMapping;
using std::chrono::seconds;

constexpr seconds CELL_SWITCH_DELAY{10};
constexpr seconds CELL_POKE_TIMEOUT{20};
constexpr seconds TOP_INTERFACE_TIMEOUT{3};
constexpr seconds ETH_POKE_GRACE{2};
constexpr seconds ETH_SETTLE_DELAY{5};

constexpr int POKE_ENDPOINT_KEY = 0;
constexpr bool ASSURED = true;
constexpr const char* CANNOT_CONNECT = "OrvRoute cannot connect to MQTT broker.";

// Keeps the cloud-connected line to one per episode, for all routes of the process.
std::atomic<bool> cloudConnectionReported{false};
std::mutex reportMutex; // guards the name of the path, which there is one of for all routes

} // namespace

OrvRoute::OrvRoute(Now clock)
    : QueueOwner("OrvRoute"),
      ethernetInterface(IpInterfacesMapping::GetInstance().GetInterfaceName("Ethernet")),
      cellularInterface(IpInterfacesMapping::GetInstance().GetInterfaceName("Cellular")),
      logger("OrvRoute", TRACE),
      poke(logger),
      now(std::move(clock)) {
    const auto store = OrvResources::CreateStaticConfigStore();
    poke.SetUrl("https://" + store->GetValue(POKE_ENDPOINT_KEY));
    ConnmanCommands::GetInstance().SetTopPriorityInterface(ethernetInterface);
    if (!Connect()) {
        // The broker may have accepted the connection and ended it: OnConnect has to return before this object ends.
        Delivery<>::Stop(*this);
        quillogger::LogWrapper::Log(CRITICAL, false, "libs/OrvStackSdk/src/OrvRoute", 37,
                                    "OrvStackSdk::OrvRoute::OrvRoute()", CANNOT_CONNECT);
        throw std::runtime_error(CANNOT_CONNECT);
    }
}

OrvRoute::~OrvRoute() {
    Delivery<>::Stop(*this);
    Disconnect();
}

void OrvRoute::UpdateRoute(bool cloudIsConnected, bool ethernetHasIp, bool cellularHasIp) {
    const std::lock_guard<std::mutex> lock(routeMutex);
    cloudConnected = cloudIsConnected;
    ethernetIpUp = ethernetHasIp;
    cellularIpUp = cellularHasIp;
    if (!cloudConnected)
        cloudLostSinceSwitch = true;

    const bool cellularChosen = state == RouteState::SWITCHING_TO_CELLULAR || state == RouteState::CELLULAR_ACTIVE;
    ConnmanCommands::GetInstance().SetTopPriorityInterface(cellularChosen ? cellularInterface : ethernetInterface);
}

bool OrvRoute::CloudReconnectNeeded() {
    const std::lock_guard<std::mutex> lock(routeMutex);
    return std::exchange(reconnectNeeded, false);
}

void OrvRoute::Tick() {
    const std::lock_guard<std::mutex> lock(routeMutex);
    const bool pokeSucceeded = pokeRunning && poke.Step();
    state = Step(pokeSucceeded);
}

OrvRoute::RouteState OrvRoute::Step(bool pokeSucceeded) {
    RouteState next = state; // NOLINT(clang-analyzer-deadcode.DeadStores): a foreign value would do nothing
    switch (state) {
    case RouteState::ETHERNET_ACTIVE:
        next = EthernetActive();
        break;
    case RouteState::ETHERNET_LOST_DELAY:
        next = EthernetLostDelay();
        break;
    case RouteState::POKING_CELLULAR:
        next = PokingCellular(pokeSucceeded);
        break;
    case RouteState::SWITCHING_TO_CELLULAR:
        next = SwitchingToCellular();
        break;
    case RouteState::CELLULAR_ACTIVE:
        next = CellularActive(pokeSucceeded);
        break;
    case RouteState::SWITCHING_TO_ETHERNET:
        next = SwitchingToEthernet();
        break;
    case RouteState::ETHERNET_SETTLE_DELAY:
        next = EthernetSettleDelay();
        break;
    }
    return next;
}

OrvRoute::RouteState OrvRoute::EthernetActive() {
    if (!cloudConnected) {
        Stamp();
        Note("eth cloud lost, start delay to cell");
        cloudConnectionReported = false;
        return RouteState::ETHERNET_LOST_DELAY;
    }
    ReportCloudConnectedWith("Ethernet");
    return RouteState::ETHERNET_ACTIVE;
}

OrvRoute::RouteState OrvRoute::EthernetLostDelay() {
    if (cloudConnected && !ethernetIpUp && cellularIpUp) {
        PublishDns(Words::DNS_INHIBIT);
        Note("cell cloud reconnected by itself");
        return RouteState::CELLULAR_ACTIVE;
    }
    if (cloudConnected) {
        Note("eth cloud reconnected by itself");
        return RouteState::ETHERNET_ACTIVE;
    }
    if (!ElapsedAtLeast(CELL_SWITCH_DELAY) || !cellularIpUp || pokeRunning)
        return RouteState::ETHERNET_LOST_DELAY;
    StartPoke(cellularInterface);
    PublishDns(Words::DNS_INHIBIT);
    logger.Debug("Tick") << "Started Poke to cell if " << poke.Interface();
    return RouteState::POKING_CELLULAR;
}

OrvRoute::RouteState OrvRoute::PokingCellular(bool pokeSucceeded) {
    if (pokeRunning && pokeSucceeded) {
        ConnmanCommands::GetInstance().SetTopPriorityInterface(cellularInterface);
        pokeRunning = false;
        Stamp();
        Note("poke success, route to Cell");
        return RouteState::SWITCHING_TO_CELLULAR;
    }
    if (!cloudConnected && cellularIpUp && !ElapsedAtLeast(CELL_POKE_TIMEOUT))
        return RouteState::POKING_CELLULAR;
    if (pokeRunning) {
        pokeRunning = false;
        poke.Stop();
        PublishDns(Words::DNS_PERMIT);
    }
    Note("poke cell aborted");
    return RouteState::ETHERNET_ACTIVE;
}

OrvRoute::RouteState OrvRoute::SwitchingToCellular() {
    if (ConnmanCommands::GetInstance().GetTopPriorityInterface() == cellularInterface) {
        // No stamp: the grace time of the Ethernet poke counts from the start of that poke.
        reconnectNeeded = true;
        Note("route is Cell, reconnecting");
        ReportCloudConnectedWith("Cellular");
        return RouteState::CELLULAR_ACTIVE;
    }
    if (!ElapsedAtLeast(TOP_INTERFACE_TIMEOUT))
        return RouteState::SWITCHING_TO_CELLULAR;
    PublishDns(Words::DNS_PERMIT);
    ConnmanCommands::GetInstance().SetTopPriorityInterface(ethernetInterface);
    logger.Error() << "Failed to set " << cellularInterface << " as top interface, restarting SM";
    return RouteState::ETHERNET_ACTIVE;
}

OrvRoute::RouteState OrvRoute::CellularActive(bool pokeSucceeded) {
    if (ethernetIpUp && !pokeRunning) {
        StartPoke(ethernetInterface);
        dnsInhibited = true;
        logger.Debug("Tick") << "Started Poke eth if " << poke.Interface();
    }
    if (!pokeRunning)
        return RouteState::CELLULAR_ACTIVE;
    // The poke is not stopped: when Ethernet's address returns, the attempt continues.
    if (!ethernetIpUp && ElapsedAtLeast(ETH_POKE_GRACE))
        pokeRunning = false;
    MirrorCellularOnDnsTopic();
    if (!pokeRunning || !pokeSucceeded)
        return RouteState::CELLULAR_ACTIVE;

    SetCellularNameServer("0.0.0.0");
    PublishDns(Words::DNS_PERMIT);
    pokeRunning = false;
    ConnmanCommands::GetInstance().SetTopPriorityInterface(ethernetInterface);
    Stamp();
    Note("poke success, route to ETH");
    cloudConnectionReported = false;
    return RouteState::SWITCHING_TO_ETHERNET;
}

OrvRoute::RouteState OrvRoute::SwitchingToEthernet() {
    if (ConnmanCommands::GetInstance().GetTopPriorityInterface() == ethernetInterface) {
        reconnectNeeded = true;
        cloudLostSinceSwitch = false;
        Stamp();
        Note("route is eth, reconnecting");
        return RouteState::ETHERNET_SETTLE_DELAY;
    }
    if (!ElapsedAtLeast(TOP_INTERFACE_TIMEOUT))
        return RouteState::SWITCHING_TO_ETHERNET;
    ConnmanCommands::GetInstance().SetTopPriorityInterface(ethernetInterface);
    SetCellularNameServer("");
    logger.Error() << "Failed to set " << ethernetInterface << " as top interface, restarting SM";
    return RouteState::ETHERNET_ACTIVE;
}

OrvRoute::RouteState OrvRoute::EthernetSettleDelay() {
    // When the cloud has been lost since the switch, nothing uses the old path any more.
    if (!cloudLostSinceSwitch && !ElapsedAtLeast(ETH_SETTLE_DELAY))
        return RouteState::ETHERNET_SETTLE_DELAY;
    SetCellularNameServer("");
    Note("cell to eth delay done");
    return RouteState::ETHERNET_ACTIVE;
}

void OrvRoute::StartPoke(const std::string& interfaceName) {
    pokeRunning = true;
    poke.Start(interfaceName);
    Stamp();
}

void OrvRoute::SetCellularNameServer(const char* address) {
    ConnmanCommands::GetInstance().SetDnsConfiguration(cellularInterface, address, "");
}

void OrvRoute::Note(const char* text) {
    logger.Debug("Tick") << text;
}

void OrvRoute::MirrorCellularOnDnsTopic() {
    if (cellularIpUp == dnsInhibited)
        return;
    PublishDns(cellularIpUp ? Words::DNS_INHIBIT : Words::DNS_PERMIT);
    dnsInhibited = cellularIpUp;
}

void OrvRoute::ReportCloudConnectedWith(const char* path) {
    const std::lock_guard<std::mutex> lock(reportMutex);
    if (cloudConnectionReported)
        return;
    ConnInterfaceString = path;
    logger.Debug("Tick") << " Cloud connected with " << ConnInterfaceString << " interface";
    cloudConnectionReported = true;
}

void OrvRoute::PublishDns(const char* word) {
    PublishRetainedMessage(Topics::INHIBIT_DNS, word, ASSURED);
}

void OrvRoute::Stamp() {
    stateSince = now();
}

bool OrvRoute::ElapsedAtLeast(Clock::duration delay) const {
    return now() - stateSince >= delay;
}

} // namespace OrvStackSdk
