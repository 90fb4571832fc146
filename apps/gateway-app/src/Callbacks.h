// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Mailbox.h"

#include <OrvStackSdk/OrvStackSdk.h>

#include <functional>
#include <memory>
#include <string>

namespace GatewayApp {

/// Receives the client library's callbacks on its threads and brings what matters to the loop's thread.
class Callbacks : public OrvStackSdk::IOrvStackClientHandler {
public:
    /// What the loop's thread does with it.
    struct Receiver {
        std::function<void(OrvStackSdk::AppAction action)> onAction;
        /// A line for the log.
        std::function<void(const std::string& line)> onLogLine;
    };

    Callbacks(std::shared_ptr<Mailbox> loopMailbox, Receiver callbackReceiver);

    /// Whether the last Init reached the broker. On the thread that called Init.
    bool Confirmed() const { return confirmed; }

    void OnInitConfirmation(const OrvStackSdk::Confirmation& confirmation) override;
    void OnAppActionIndication(const OrvStackSdk::AppAction& action) override;
    void OnAppStatusIndication(const std::string& app, const OrvStackSdk::AppStatus& status) override;
    void OnDeviceProbeIndication(const std::string& guid) override;
    void OnDeviceOnlineStatusIndication(bool online) override;
    void OnDeviceCellularStatusIndication(const OrvStackSdk::CellularStatus& status, const std::string& value) override;
    void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) override;

private:
    void PostLogLine(std::string line);

    const std::shared_ptr<Mailbox> mailbox;
    const Receiver receiver; // called on the loop's thread only
    bool confirmed = false;
};

} // namespace GatewayApp
