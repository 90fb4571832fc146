// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/IOrvStackClientHandler.h"
#include "OrvStackSdk/OrvEnums.h"

#include <chrono>
#include <memory>
#include <string>

namespace OrvStackSdk {

/// An application's connection to the gateway's connected-services stack. CreateClient() makes one.
///
/// Order: SetHandler, Init, Start, then Tick periodically and any requests, then Stop, DeInit, and the release of the
/// last pointer. The order is not enforced: requests are passed on in any state.
///
/// Threads: the client has no thread of its own. Make all calls on one thread of the application, all but SetHandler
/// and Init also inside a callback. EventUpdateRequest, Tick and CloudReconnectNeeded are safe on any thread.
///
/// Blocking: Init waits at most 3 s for the broker, DeInit and the release at most 1 s each. EventUpdateRequest waits
/// for the disk of the status files. No other call waits.
///
/// Release: the last pointer may be released anywhere, even inside a callback. If a callback is running, the connection
/// ends after that callback has returned.
///
/// Failure: only OnInitConfirmation reports a failure to the application. A publication that fails is not queued. It is
/// logged, unless it was a state, an action or a LED. A LED is sent again with the next event. After a lost connection
/// the platform announces again what was last asked to be retained, and the availability; everything else is lost.
/// A value that is no enumerator throws std::out_of_range, and the call does nothing. Any call may throw
/// std::bad_alloc. Nothing else is thrown.
class ORVSTACKSDK_EXPORT IOrvStackClient {
public:
    virtual ~IOrvStackClient() = default;

    /// Sets the receiver of the callbacks. The client does not keep it alive. Without a receiver, callbacks are
    /// dropped. Call this before Init, never while messages may arrive or inside a callback.
    virtual void SetHandler(std::weak_ptr<IOrvStackClientHandler> handler) = 0;

    /// Connects to the broker under the application's name and calls OnInitConfirmation before it returns.
    /// If the connection ends without DeInit, the broker announces the application as unavailable.
    /// A further call connects again, under the new name. Do not call it while messages may arrive, because their
    /// delivery reads the name, nor inside a callback.
    /// @param appName the application's (feature's) name, one level of its topics: UTF-8, not empty, without NUL, "/",
    ///                "+" and "#". The name is not checked. With "+", "#", a NUL or invalid UTF-8 no connection is
    ///                made (NACK). With a "/", or with an empty name, the topics differ from those that the stack
    ///                expects. "shutdown_readiness" is reserved: that application's topics would be read as the
    ///                readiness of other applications.
    virtual void Init(const std::string& appName) = 0;

    /// Stops and disconnects cleanly. The broker publishes nothing about the application's end.
    virtual void DeInit() = 0;

    /// Announces the application as available, then as booting. The application itself reports READY when it is ready.
    virtual void Start() = 0;

    /// Notes that the application no longer runs. Nothing is sent.
    virtual void Stop() = 0;

    /// Moves the WAN route supervision one step. Its delays are as exact as the interval between ticks; 100 ms to 1 s
    /// is sensible. Never waits for the network, the broker or the connection manager.
    /// @param elapsed time since the last tick; not used, because the client has its own clock
    virtual void Tick(std::chrono::milliseconds elapsed) = 0;

    /// Reports the application's own status: SUPPORTED and AVAILABLE on topics of their own, BOOTING, READY, ERROR and
    /// NOERROR as its state. UNSUPPORTED is logged and not sent. The application counts as BOOTING, and a RELOAD is
    /// refused, until the next report of any other value, SUPPORTED, AVAILABLE and UNSUPPORTED included.
    virtual void AppStatusRequest(const AppStatus& status) = 0;

    /// Sends an action to an application, this one or another. UNSUPPORTED is logged and not sent.
    virtual void AppActionRequest(const std::string& app, const AppAction& action) = 0;

    /// Reports a connectivity event. It updates the LEDs, the status messages, the status files and the input of the
    /// route supervision.
    virtual void EventUpdateRequest(const OrvEvent& event) = 0;

    /// True once after each move of the WAN route: the application must then connect to the cloud again. Call it after
    /// each tick.
    virtual bool CloudReconnectNeeded() = 0;

    /// Asks all applications to prepare for shutdown. Their answers arrive in OnFeatureShutdownReadinessIndication.
    virtual void RequestShutdown() = 0;

    /// Sends a command to the panel.
    /// @param command the command's text, passed on unchanged
    /// @param value   1 alarm acknowledge, 2 reset, 3 acknowledge, 4 acknowledge individual, 5 date and time,
    ///                6 get RC status, 7 get RS status; any other value is logged and nothing is sent
    virtual void PanelCommandRequest(const std::string& command, int value) = 0;

    /// Publishes the state of the cellular connection, passed on unchanged.
    virtual void SendConnectionStatus(const std::string& status) = 0;
};

} // namespace OrvStackSdk
