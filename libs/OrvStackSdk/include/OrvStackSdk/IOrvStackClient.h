// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/IOrvStackClientHandler.h"
#include "OrvStackSdk/OrvEnums.h"

#include <chrono>
#include <memory>
#include <string>

namespace OrvStackSdk {

/// An application's part in the gateway's connected-services stack. Made by CreateClient().
///
/// Order: SetHandler, Init, Start, then Tick periodically and any requests, then Stop, DeInit, and the release of the
/// last pointer. The order is not enforced: requests are passed on in any state.
///
/// Threads: the client has no thread of its own. All calls are expected on one thread of the application, or from
/// inside a callback. EventUpdateRequest, Tick and CloudReconnectNeeded are safe from any thread.
///
/// Blocking: Init waits for the broker, at most 3 s, and DeInit and the release at most 1 s each. Nothing else waits,
/// but for the disk that takes the status files in EventUpdateRequest.
///
/// Release: anywhere, inside a callback too. While a callback runs, the connection ends when that has returned.
///
/// Failure: nothing is reported to the caller but through OnInitConfirmation. A publication that fails is not queued.
/// It is logged, unless it was a state, an action or a LED; a LED is sent again with the next event, the others are not
/// retried. A value that is no enumerator throws std::out_of_range, and nothing is done; nothing else is thrown.
class ORVSTACKSDK_EXPORT IOrvStackClient {
public:
    virtual ~IOrvStackClient() = default;

    /// Names the receiver of the callbacks. The client does not keep it alive; when it is gone, callbacks are dropped.
    /// Call it before Init; not while messages arrive.
    virtual void SetHandler(std::weak_ptr<IOrvStackClientHandler> handler) = 0;

    /// Connects to the broker in the name of the application and answers with OnInitConfirmation before it returns.
    /// If the connection ends without DeInit, the broker announces the application as unavailable.
    /// A further call connects anew, under the name then given. Not while messages arrive: their delivery reads the
    /// name.
    /// @param appName the application's (feature's) name, one level of its topics: UTF-8, not empty, and without NUL,
    ///                "/", "+" and "#". It is not checked: with "+", "#", a NUL or what is not UTF-8 no connection is
    ///                made (NACK); with a "/", or empty, the topics are other ones than the stack expects.
    ///                "shutdown_readiness" is taken: that application's topics would be read as the readiness of
    ///                others.
    virtual void Init(const std::string& appName) = 0;

    /// Stops and leaves the broker with a good-bye: what the broker says about the application stays as it was last.
    virtual void DeInit() = 0;

    /// Announces the application as available, then as booting. It reports READY itself when it is.
    virtual void Start() = 0;

    /// Notes that the application no longer runs. Nothing is sent.
    virtual void Stop() = 0;

    /// Drives the WAN route supervision one step; every delay of the supervision is as exact as the ticks are frequent
    /// (100 ms to 1 s is sensible). Never waits for the network, the broker or the connection manager.
    /// @param elapsed time since the last tick; not used, the client has its own clock
    virtual void Tick(std::chrono::milliseconds elapsed) = 0;

    /// Reports the application's own status: SUPPORTED and AVAILABLE on topics of their own, BOOTING, READY, ERROR and
    /// NOERROR as its state. UNSUPPORTED is logged and not sent.
    virtual void AppStatusRequest(const AppStatus& status) = 0;

    /// Orders an application, this one or another, to do something. UNSUPPORTED is logged and not sent.
    virtual void AppActionRequest(const std::string& app, const AppAction& action) = 0;

    /// Reports a connectivity event. LEDs, status messages, status files and the route supervision follow from it.
    virtual void EventUpdateRequest(const OrvEvent& event) = 0;

    /// True once after each switch of the WAN route: the application then connects to the cloud anew. Ask after each
    /// tick.
    virtual bool CloudReconnectNeeded() = 0;

    /// Asks every application to prepare for shutdown; they answer through OnFeatureShutdownReadinessIndication.
    virtual void RequestShutdown() = 0;

    /// Sends a command to the panel.
    /// @param command the command's text, passed on unchanged
    /// @param value   1 alarm acknowledge, 2 reset, 3 acknowledge, 4 acknowledge individual, 5 date and time,
    ///                6 get RC status, 7 get RS status; another value reaches nobody and is logged
    virtual void PanelCommandRequest(const std::string& command, int value) = 0;

    /// Tells the state of the cellular connection, passed on unchanged.
    virtual void SendConnectionStatus(const std::string& status) = 0;
};

} // namespace OrvStackSdk
