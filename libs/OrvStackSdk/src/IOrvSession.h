// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "IOrvSessionHandler.h"
#include "OrvStackSdk/OrvEnums.h"

#include <memory>
#include <string>

namespace OrvStackSdk {

/// The requests to the broker. The client and the status handler share a session. Requests come on the application's
/// thread, or on the delivery thread inside an indication. No request throws of its own, and only LedUpdateRequest has
/// a result: the session itself deals with requests while it is not connected.
class IOrvSession {
public:
    virtual ~IOrvSession() = default;

    virtual void InitRequest(const std::string& appName) = 0;
    virtual void DeInitRequest() = 0;

    /// Called once, right after the client was made. The handler is not kept alive. Without it, indications are
    /// dropped.
    virtual void SetHandler(std::weak_ptr<IOrvSessionHandler> handler) = 0;

    virtual void FeatureAvailableRequest(const std::string& app, bool available) = 0;
    virtual void FeatureSupportedRequest(const std::string& app, bool supported) = 0;
    virtual void FeatureInitRequest(const std::string& app, const AppStatus& status) = 0;
    virtual void FeatureInitRequest(const std::string& app, const AppAction& action) = 0;
    virtual void AppsControlEventRequest(const std::string& app, const std::string& event) = 0;
    virtual void FeaturePrepareForShutdownRequest() = 0;
    virtual void FeatureShutdownReadinessRequest(const std::string& app, const std::string& readiness) = 0;

    /// @return true when the state did NOT go out, false when it did
    virtual bool LedUpdateRequest(const ConnectedServicesLedType& led, const ConnectedServicesLedState& state) = 0;

    virtual void StatusEntConRequest(bool connected) = 0;
    virtual void StatusExtNetRequest(bool reachable) = 0;
    virtual void PanelCommandRequest(const std::string& command, int value) = 0;
    virtual void SendConnectionStatus(const std::string& status) = 0;
};

} // namespace OrvStackSdk
