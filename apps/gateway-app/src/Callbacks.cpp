// SPDX-License-Identifier: Apache-2.0
#include "Callbacks.h"

#include <utility>

namespace GatewayApp {

using namespace OrvStackSdk;

Callbacks::Callbacks(std::shared_ptr<Mailbox> loopMailbox, Receiver callbackReceiver)
    : mailbox(std::move(loopMailbox)), receiver(std::move(callbackReceiver)) {}

void Callbacks::PostLogLine(std::string line) {
    mailbox->Post([tell = receiver.onLogLine, line = std::move(line)] { tell(line); });
}

void Callbacks::OnInitConfirmation(const Confirmation& confirmation) {
    confirmed = confirmation == Confirmation::ACK;
}

void Callbacks::OnAppActionIndication(const AppAction& action) {
    mailbox->Post([act = receiver.onAction, action] { act(action); });
}

void Callbacks::OnAppStatusIndication(const std::string& app, const AppStatus& status) {
    PostLogLine("application " + app + " is " + AppStatusText(status));
}

void Callbacks::OnDeviceProbeIndication(const std::string& guid) {
    PostLogLine("panel " + guid + " has named itself");
}

void Callbacks::OnDeviceOnlineStatusIndication(bool online) {
    PostLogLine(online ? "panel is online" : "panel is offline");
}

void Callbacks::OnDeviceCellularStatusIndication(const CellularStatus& status, const std::string& value) {
    PostLogLine("modem: " + CellularStatusText(status) + " is " + value);
}

void Callbacks::OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) {
    PostLogLine("application " + app + (ready ? " is ready for the shutdown" : " is not ready for the shutdown"));
}

} // namespace GatewayApp
