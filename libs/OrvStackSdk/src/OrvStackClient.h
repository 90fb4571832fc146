// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "IOrvSession.h"
#include "IOrvSessionHandler.h"
#include "OrvRoute.h"
#include "OrvStackSdk/IOrvStackClient.h"
#include "OrvStatusHandler.h"
#include "Platform.h"

#include <atomic>
#include <memory>
#include <string>

namespace OrvStackSdk {

/// The client: forwards the application's calls to session, status handler and route supervision, and the session's
/// indications to the application. Takes no lock: data that indications read is atomic.
class OrvStackClient : public IOrvStackClient, public IOrvSessionHandler {
public:
    explicit OrvStackClient(std::shared_ptr<IOrvSession> session);

    /// Sends nothing to the broker; an application that wants a clean end calls DeInit first.
    ~OrvStackClient() override;

    void SetHandler(std::weak_ptr<IOrvStackClientHandler> newHandler) override;
    void Init(const std::string& name) override;
    void DeInit() override;
    void Start() override;
    void Stop() override;
    void Tick(std::chrono::milliseconds elapsed) override;
    void AppStatusRequest(const AppStatus& status) override;
    void AppActionRequest(const std::string& app, const AppAction& action) override;
    void EventUpdateRequest(const OrvEvent& event) override;
    bool CloudReconnectNeeded() override;
    void RequestShutdown() override;
    void PanelCommandRequest(const std::string& command, int value) override;
    void SendConnectionStatus(const std::string& status) override;

    void OnInitConfirmation(const Confirmation& confirmation) override;
    void OnFeatureAvailableIndication(const std::string& app, bool available) override;
    void OnFeatureSupportedIndication(const std::string& app, bool supported) override;
    void OnFeatureInitIndication(const std::string& app, const AppStatus& status) override;
    void OnFeatureInitIndication(const std::string& app, const AppAction& action) override;
    void OnDeviceProbeIndication(const std::string& guid) override;
    void OnDeviceConnectionStatusIndication(bool online) override;
    void OnDeviceCellularStatusIndication(const CellularStatus& status, const std::string& value) override;
    void OnAppsControlEventIndication(const std::string& app, const std::string& event) override;
    void OnFeaturePrepareForShutdownIndication(const std::string& app, const std::string& event) override;
    void OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) override;

private:
    bool IsOwn(const std::string& app) const;

    // For the reader of a core file; no request or indication depends on them.
    std::atomic<bool> initialised{false};
    std::atomic<bool> running{false};
    std::string appName; // written by Init only
    std::atomic<AppStatus> appStatus{AppStatus::SUPPORTED};
    const std::shared_ptr<IOrvSession> session;
    const std::shared_ptr<OrvRoute> route;
    std::weak_ptr<IOrvStackClientHandler> handler;
    const std::unique_ptr<OrvStatusHandler> statusHandler;
    CommonUtils::Logger logger;
};

} // namespace OrvStackSdk
