// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/OrvEnums.h"

#include <string>

namespace OrvStackSdk {

/// What an application is told. The application implements it and hands it to IOrvStackClient::SetHandler.
///
/// Threads: OnInitConfirmation runs inside Init, on the thread that called it. Everything else runs on the broker
/// connection's delivery thread, one callback at a time, and may run while the application is inside a call of the
/// client. A callback that takes its time delays the messages behind it. Every call of the client is allowed inside a
/// callback, the release of the last pointer to it too.
///
/// Exceptions must not leave a callback.
class ORVSTACKSDK_EXPORT IOrvStackClientHandler {
public:
    virtual ~IOrvStackClientHandler() = default;

    /// The answer to Init: ACK when the broker was reached, NACK when not (call Init again to retry). It comes before
    /// the subscriptions are made.
    virtual void OnInitConfirmation(const Confirmation& confirmation) = 0;

    /// This application is ordered to do something. RELOAD does not come while the application is BOOTING: the client
    /// refuses it and announces BOOTING again.
    virtual void OnAppActionIndication(const AppAction& action) = 0;

    /// Another application's status. Kept for the interface's sake, in this system it is not called: the session tells
    /// the client of its own application's status only, and the client passes on only that of others.
    virtual void OnAppStatusIndication(const std::string& app, const AppStatus& status) = 0;

    /// The panel has named itself.
    /// @param guid the panel's identifier, as it was received
    virtual void OnDeviceProbeIndication(const std::string& guid) = 0;

    /// The panel's connection: true for the payload "UP", false for any other.
    virtual void OnDeviceOnlineStatusIndication(bool online) = 0;

    /// One item about the modem or its SIM.
    /// @param value the item's text as it was received, of any length and content
    virtual void OnDeviceCellularStatusIndication(const CellularStatus& status, const std::string& value) = 0;

    /// Whether an application (this one or another) is ready for the shutdown that was asked for with RequestShutdown.
    virtual void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) = 0;
};

} // namespace OrvStackSdk
