// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/OrvEnums.h"

#include <string>

namespace OrvStackSdk {

/// The indications from the broker. Only the session calls them, on the thread that delivers the broker's messages and
/// concurrently with the application's calls. The confirmation comes on the thread that called InitRequest.
class IOrvSessionHandler {
public:
    virtual ~IOrvSessionHandler() = default;

    virtual void OnInitConfirmation(const Confirmation& confirmation) = 0;
    virtual void OnFeatureAvailableIndication(const std::string& app, bool available) = 0;
    virtual void OnFeatureSupportedIndication(const std::string& app, bool supported) = 0;
    virtual void OnFeatureInitIndication(const std::string& app, const AppStatus& status) = 0;
    virtual void OnFeatureInitIndication(const std::string& app, const AppAction& action) = 0;
    virtual void OnDeviceProbeIndication(const std::string& guid) = 0;
    virtual void OnDeviceConnectionStatusIndication(bool online) = 0;
    virtual void OnDeviceCellularStatusIndication(const CellularStatus& status, const std::string& value) = 0;
    virtual void OnAppsControlEventIndication(const std::string& app, const std::string& event) = 0;
    virtual void OnFeaturePrepareForShutdownIndication(const std::string& app, const std::string& event) = 0;
    virtual void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) = 0;
};

} // namespace OrvStackSdk
