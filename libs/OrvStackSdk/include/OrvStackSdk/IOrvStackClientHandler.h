// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/OrvEnums.h"

#include <string>

namespace OrvStackSdk {

/// The callbacks of a client. An application implements them and passes the object to IOrvStackClient::SetHandler.
///
/// Threads: OnInitConfirmation runs inside Init, on the thread that called it. All other callbacks run on the broker
/// connection's delivery thread, one at a time, and may run while the application is inside a call of the client. A
/// slow callback delays the messages behind it. All calls of the client except SetHandler and Init are allowed inside
/// any callback, OnInitConfirmation included, even the release of the last pointer to it.
///
/// No exception may leave a callback.
class ORVSTACKSDK_EXPORT IOrvStackClientHandler {
public:
    virtual ~IOrvStackClientHandler() = default;

    /// The answer to Init: ACK if the broker accepted the connection, otherwise NACK (to retry, call Init again when it
    /// has returned). It comes before the subscriptions are made.
    virtual void OnInitConfirmation(const Confirmation& confirmation) = 0;

    /// An action for this application has arrived. While the application is BOOTING, RELOAD is not passed on: the
    /// client refuses it and announces BOOTING again.
    virtual void OnAppActionIndication(const AppAction& action) = 0;

    /// Another application's status. This callback is never called: the session reports only its own application's
    /// status to the client, and the client passes on only the status of others. It exists because it holds a slot.
    virtual void OnAppStatusIndication(const std::string& app, const AppStatus& status) = 0;

    /// The panel has reported its identifier.
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
