// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "IOrvSessionHandler.h"
#include "OrvStackSdk/OrvEnums.h"

#include <memory>
#include <string>

namespace OrvStackSdk {

/// What the client asks of the broker side. Shared by the client and the status handler; requests come on the
/// application's thread, and from inside an indication on the delivery thread. No request throws on its own account,
/// and only LedUpdateRequest has a result: a request made while the session is not connected is the session's business.
class IOrvSession {
public:
    virtual ~IOrvSession() = default;

    virtual void InitRequest(const std::string& appName) = 0;
    virtual void DeInitRequest() = 0;

    /// Called once, right after the client was built. The handler is not kept alive; a gone handler gets no
    /// indications.
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
