// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "IOrvSession.h"
#include "Platform.h"

#include <memory>
#include <string>

namespace OrvStackSdk {

/// The session over the gateway's local MQTT broker: requests become publications, messages become indications.
/// Takes no lock and keeps no state but its handler and its feature's name; the connection is the base's.
class OrvSessionMqtt : public IOrvSession, public QUILMQTT::QueueOwner {
public:
    OrvSessionMqtt();
    ~OrvSessionMqtt() override;

    /// Connects, with the feature's unavailability as the last will.
    /// @return true when the broker accepted the connection
    bool Connect();

    void InitRequest(const std::string& featureName) override;
    void DeInitRequest() override;
    void SetHandler(std::weak_ptr<IOrvSessionHandler> newHandler) override;

    void FeatureAvailableRequest(const std::string& app, bool available) override;
    void FeatureSupportedRequest(const std::string& app, bool supported) override;
    void FeatureInitRequest(const std::string& app, const AppStatus& status) override;
    void FeatureInitRequest(const std::string& app, const AppAction& action) override;
    void AppsControlEventRequest(const std::string& app, const std::string& event) override;
    void FeaturePrepareForShutdownRequest() override;
    void FeatureShutdownReadinessRequest(const std::string& app, const std::string& readiness) override;
    bool LedUpdateRequest(const ConnectedServicesLedType& led, const ConnectedServicesLedState& state) override;
    void StatusEntConRequest(bool connected) override;
    void StatusExtNetRequest(bool reachable) override;
    void PanelCommandRequest(const std::string& command, int value) override;
    void SendConnectionStatus(const std::string& status) override;

    /// Turns one message into one indication, on the delivery thread.
    void OnPublish(const std::string& topic, const std::string& message) override;

private:
    void WarnOf(int publishStatus, const char* failure);
    void Dispatch(IOrvSessionHandler& receiver, const std::string& topic, const std::string& message);
    void OnInitMessage(IOrvSessionHandler& receiver, const std::string& topic, const std::string& message);

    std::weak_ptr<IOrvSessionHandler> handler;
    std::string feature;
    CommonUtils::Logger logger;
};

} // namespace OrvStackSdk
