// SPDX-License-Identifier: Apache-2.0
#include "OrvStatusHandler.h"

#include "StatusFile.h"

#include <cstdio>
#include <utility>

namespace OrvStackSdk {

namespace {

using LedState = ConnectedServicesLedState;

constexpr const char* STATUS_FILE = "/var/tmp/new_enterprise_statuses.csv";
constexpr const char* ERROR_FILE = "/var/tmp/new_enterprise_errors.csv";

const char* UpOrDown(bool up) {
    return up ? "Up" : "Down";
}

} // namespace

OrvStatusHandler::OrvStatusHandler(std::shared_ptr<IOrvSession> theSession, std::shared_ptr<OrvRoute> theRoute,
                                   Now clock)
    : session(std::move(theSession)), route(std::move(theRoute)), now(std::move(clock)) {
    WriteCSVStatus();
}

void OrvStatusHandler::SetEvent(const OrvEvent& event) {
    const std::lock_guard<std::mutex> lock(stateMutex);
    ApplyToFlags(event);
    ProcessLeds();
    ProcessEntConStatus();
    route->UpdateRoute(cloudConnected, ethernetIpUp, cellularIpUp);
    WriteCSVStatus();
    WriteCSVError();
}

void OrvStatusHandler::ApplyToFlags(OrvEvent event) {
    switch (event) {
    case OrvEvent::CLOUD_CONNECTED:
        cloudConnected = true;
        break;
    case OrvEvent::CLOUD_DISCONNECTED:
        cloudConnected = false;
        break;
    case OrvEvent::PANEL_CLOUD_ENABLED:
        panelCloudEnabled = true;
        break;
    case OrvEvent::PANEL_CLOUD_DISABLED:
        panelCloudEnabled = false;
        break;
    // Link and address are separate: a pulled cable does not clear the address flag, only the address's own event does.
    case OrvEvent::ETHERNET_DISCONNECTED:
        ethernetLinkUp = false;
        break;
    case OrvEvent::ETHERNET_CONNECTED:
        ethernetLinkUp = true;
        break;
    case OrvEvent::ETHERNET_IP_GAINED:
        ethernetIpUp = true;
        break;
    case OrvEvent::ETHERNET_IP_LOST:
        ethernetIpUp = false;
        break;
    case OrvEvent::CELLULAR_DISCONNECTED:
        cellularLinkUp = false;
        break;
    case OrvEvent::CELLULAR_CONNECTED:
        cellularLinkUp = true;
        break;
    case OrvEvent::CELLULAR_IP_GAINED:
        cellularIpUp = true;
        break;
    case OrvEvent::CELLULAR_IP_LOST:
        cellularIpUp = false;
        break;
    case OrvEvent::FAILURE:
        failureDetected = true;
        break;
    }
}

bool OrvStatusHandler::WanPathUp() const {
    return (ethernetLinkUp && ethernetIpUp) || (cellularLinkUp && cellularIpUp);
}

void OrvStatusHandler::ProcessLeds() {
    LedState yellow = LedState::ON;
    LedState green = LedState::OFF;
    if (failureDetected) {
        yellow = LedState::BLINK;
        green = LedState::BLINK;
    } else if (cloudConnected) {
        yellow = LedState::OFF;
        green = LedState::ON;
    } else if (WanPathUp()) {
        yellow = LedState::BLINK;
    }
    SetYellowLed(yellow);
    SetGreenLed(green);
}

void OrvStatusHandler::SetYellowLed(const LedState& state) {
    SetLed(ConnectedServicesLedType::YELLOW, state, yellowLedSent);
}

void OrvStatusHandler::SetGreenLed(const LedState& state) {
    SetLed(ConnectedServicesLedType::GREEN, state, greenLedSent);
}

void OrvStatusHandler::SetLed(ConnectedServicesLedType led, const LedState& state, LedState& sent) {
    const LedState known = state < LED_STATE_UNSENT ? state : LED_STATE_UNSENT;
    if (known == sent)
        return;
    sent = known;
    const bool failed = session->LedUpdateRequest(led, state);
    if (failed)
        sent = LED_STATE_UNSENT;
}

void OrvStatusHandler::ProcessEntConStatus() {
    session->StatusExtNetRequest(cloudConnected || WanPathUp());
}

void OrvStatusHandler::WriteCSVStatus() const {
    char text[128];
    const int length = std::snprintf(text, sizeof text,
                                     "\"Enterprise Feature\",\"%s\"\n"
                                     "\"Cloud Connection\",\"%s\"\n"
                                     "\"Ethernet\",\"%s\"\n"
                                     "\"Cellular\",\"%s\"",
                                     panelCloudEnabled ? "Enabled" : "Disabled", UpOrDown(cloudConnected),
                                     UpOrDown(ethernetLinkUp), UpOrDown(cellularLinkUp));
    StatusFile(STATUS_FILE).Write(text, static_cast<std::size_t>(length));
}

void OrvStatusHandler::WriteCSVError() const {
    if (!failureDetected)
        return;
    const StatusFile file(ERROR_FILE);
    const auto sinceEpoch = std::chrono::duration_cast<std::chrono::nanoseconds>(now().time_since_epoch());
    char text[64];
    const int length = std::snprintf(text, sizeof text, "%lld,Fatal Error Detected",
                                     static_cast<long long>(sinceEpoch.count() / 1000000000));
    file.Write(text, static_cast<std::size_t>(length));
}

} // namespace OrvStackSdk
