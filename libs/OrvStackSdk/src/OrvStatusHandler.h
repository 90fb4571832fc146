// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "IOrvSession.h"
#include "OrvRoute.h"
#include "OrvStackSdk/OrvEnums.h"

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>

namespace OrvStackSdk {

/// Turns connectivity events into LEDs, the external-network status, the route supervision's flags and two CSV files
/// for other processes of the gateway: "/var/tmp/new_enterprise_statuses.csv" and, after a failure,
/// "/var/tmp/new_enterprise_errors.csv". Both are always written whole and never read. If the disk is full or missing,
/// they are lost silently. A foreign file in their place is replaced.
class OrvStatusHandler {
public:
    using Clock = std::chrono::system_clock;
    using Now = std::function<Clock::time_point()>;
    struct RealTime {
        Clock::time_point operator()() const;
    };

    /// Writes the status file, so that it exists from the start. Neither LEDs nor status are sent.
    /// @param now the wall clock of the error file
    OrvStatusHandler(std::shared_ptr<IOrvSession> session, std::shared_ptr<OrvRoute> route, Now now = RealTime());

    /// Takes one event and evaluates all outputs anew, as one unit. Callable from any thread.
    void SetEvent(const OrvEvent& event);

private:
    void ApplyToFlags(OrvEvent event);
    bool WanPathUp() const;
    void ProcessLeds();
    void SetYellowLed(const ConnectedServicesLedState& state);
    void SetGreenLed(const ConnectedServicesLedState& state);
    void SetLed(ConnectedServicesLedType led, const ConnectedServicesLedState& state, ConnectedServicesLedState& sent);
    void ProcessEntConStatus();
    void WriteCSVStatus() const;
    void WriteCSVError() const;

    // One past the last enumerator: nothing has been sent, and every state differs from it.
    static constexpr ConnectedServicesLedState LED_STATE_UNSENT{3};

    bool cloudConnected = false;
    bool panelCloudEnabled = false;
    bool ethernetLinkUp = false;
    bool ethernetIpUp = false;
    bool cellularLinkUp = false;
    bool cellularIpUp = false;
    bool failureDetected = false; // a latch: nothing clears it
    ConnectedServicesLedState yellowLedSent = LED_STATE_UNSENT;
    ConnectedServicesLedState greenLedSent = LED_STATE_UNSENT;
    std::mutex stateMutex; // guards all of the above
    const std::shared_ptr<IOrvSession> session;
    const std::shared_ptr<OrvRoute> route;
    const Now now;
};

} // namespace OrvStackSdk
