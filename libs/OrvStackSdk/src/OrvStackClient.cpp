// SPDX-License-Identifier: Apache-2.0
#include "OrvStackClient.h"

#include "LogLevel.h"
#include "OrvSessionMqtt.h"
#include "OrvStackSdk/OrvStackSdk.h"

#include <utility>

namespace OrvStackSdk {

std::shared_ptr<IOrvStackClient> CreateClient() {
    quillogger::LogWrapper::Log(TRACE, false, "OrvStackClient", 30,
                                "std::shared_ptr<OrvStackSdk::IOrvStackClient> OrvStackSdk::CreateClient()",
                                "OrvStackSdk::CreateClient()");
    const auto session = std::make_shared<OrvSessionMqtt>();
    const auto client = std::make_shared<OrvStackClient>(session);
    session->SetHandler(std::weak_ptr<IOrvSessionHandler>(client));
    return client;
}

OrvStackClient::OrvStackClient(std::shared_ptr<IOrvSession> theSession)
    : session(std::move(theSession)),
      route(std::make_shared<OrvRoute>()),
      statusHandler(std::make_unique<OrvStatusHandler>(session, route)),
      logger("OrvStackClient", TRACE) {
    logger.Trace("OrvStackClient");
}

OrvStackClient::~OrvStackClient() {
    logger.Trace("~OrvStackClient");
}

void OrvStackClient::SetHandler(std::weak_ptr<IOrvStackClientHandler> newHandler) {
    logger.Trace("SetHandler");
    handler = std::move(newHandler);
}

void OrvStackClient::Init(const std::string& name) {
    logger.Trace("Init") << "(appName=" << name << ")";
    appName = name;
    initialised = true;
    // The confirmation may release the last pointer to this client, and the session must still finish its request.
    const auto heldSession = session;
    heldSession->InitRequest(name);
}

void OrvStackClient::DeInit() {
    logger.Trace("DeInit");
    Stop();
    session->DeInitRequest();
    initialised = false;
}

void OrvStackClient::Start() {
    logger.Trace("Start");
    running = true;
    AppStatusRequest(AppStatus::AVAILABLE);
    AppStatusRequest(AppStatus::BOOTING);
}

void OrvStackClient::Stop() {
    logger.Trace("Stop");
    running = false;
}

void OrvStackClient::Tick(std::chrono::milliseconds) {
    route->Tick();
}

// A value that is no enumerator has no text, and asking for it throws. Each request asks first, before it logs or
// forwards anything, so that it throws at every log level.

void OrvStackClient::AppStatusRequest(const AppStatus& status) {
    const std::string& text = AppStatusText(status);
    logger.Trace("AppStatusRequest") << "(status=" << text << ")";
    appStatus = status;
    if (status == AppStatus::SUPPORTED)
        session->FeatureSupportedRequest(appName, true);
    else if (status == AppStatus::AVAILABLE)
        session->FeatureAvailableRequest(appName, true);
    else
        session->FeatureInitRequest(appName, status);
}

void OrvStackClient::AppActionRequest(const std::string& app, const AppAction& action) {
    const std::string& text = AppActionText(action);
    logger.Trace("AppActionRequest") << "(App=" << app << ", AppAction=" << text << ")";
    session->FeatureInitRequest(app, action);
}

void OrvStackClient::EventUpdateRequest(const OrvEvent& event) {
    const std::string& text = OrvEventText(event);
    logger.Trace("EventUpdateRequest") << "(event=" << text << ")";
    statusHandler->SetEvent(event);
    if (event == OrvEvent::CLOUD_CONNECTED)
        session->StatusEntConRequest(true);
    else if (event == OrvEvent::CLOUD_DISCONNECTED)
        session->StatusEntConRequest(false);
}

bool OrvStackClient::CloudReconnectNeeded() {
    return route->CloudReconnectNeeded();
}

void OrvStackClient::RequestShutdown() {
    session->FeaturePrepareForShutdownRequest();
}

void OrvStackClient::PanelCommandRequest(const std::string& command, int value) {
    session->PanelCommandRequest(command, value);
}

void OrvStackClient::SendConnectionStatus(const std::string& status) {
    session->SendConnectionStatus(status);
}

bool OrvStackClient::IsOwn(const std::string& app) const {
    return CommonUtils::StringHelpers::CompareCaseInsensitive(app, appName);
}

void OrvStackClient::OnInitConfirmation(const Confirmation& confirmation) {
    const auto receiver = handler.lock();
    if (!receiver)
        return;
    const std::string& text = ConfirmationText(confirmation);
    logger.Trace("OnInitConfirmation") << "(confirmation=" << text << "): Calling OnInitConfirmation(" << text
                                       << ")...";
    receiver->OnInitConfirmation(confirmation);
}

// The session raises these indications for its own application only. The client passes on availability, support and
// states of other applications only, and actions for its own application only. So only actions reach the application.

void OrvStackClient::OnFeatureAvailableIndication(const std::string& app, bool available) {
    const auto receiver = handler.lock();
    if (!receiver || IsOwn(app) || !available)
        return;
    logger.Trace("OnFeatureAvailableIndication")
        << "(App=" << app << ", available=True): Calling OnAppStatusIndication(" << AppStatusText(AppStatus::AVAILABLE)
        << ")...";
    receiver->OnAppStatusIndication(app, AppStatus::AVAILABLE);
}

void OrvStackClient::OnFeatureSupportedIndication(const std::string& app, bool supported) {
    const auto receiver = handler.lock();
    if (!receiver || IsOwn(app) || !supported)
        return;
    logger.Trace("OnFeatureSupportedIndication")
        << "(App=" << app << ", supported=True): Calling OnAppStatusIndication(" << AppStatusText(AppStatus::SUPPORTED)
        << ")...";
    receiver->OnAppStatusIndication(app, AppStatus::SUPPORTED);
}

void OrvStackClient::OnFeatureInitIndication(const std::string& app, const AppStatus& status) {
    if (IsOwn(app))
        return;
    const auto receiver = handler.lock();
    if (!receiver)
        return;
    const std::string& text = AppStatusText(status);
    logger.Trace("OnFeatureInitIndication")
        << "(App=" << app << ", initState=" << text << "): Calling OnAppStatusIndication(" << text << ")...";
    receiver->OnAppStatusIndication(app, status);
}

void OrvStackClient::OnFeatureInitIndication(const std::string& app, const AppAction& action) {
    if (!IsOwn(app))
        return;
    if (appStatus == AppStatus::BOOTING && action == AppAction::RELOAD) {
        logger.Trace("OnFeatureInitIndication")
            << "(App=" << app << ", initState=" << AppActionText(action)
            << "): Rejecting RELOAD request. This application is already in state BOOTING";
        AppStatusRequest(AppStatus::BOOTING);
        return;
    }
    const auto receiver = handler.lock();
    if (!receiver)
        return;
    const std::string& text = AppActionText(action);
    logger.Trace("OnFeatureInitIndication")
        << "(App=" << app << ", initState=" << text << "): Calling OnAppActionIndication(" << text << ")...";
    receiver->OnAppActionIndication(action);
}

void OrvStackClient::OnDeviceProbeIndication(const std::string& guid) {
    const auto receiver = handler.lock();
    if (!receiver)
        return;
    logger.Trace("OnDeviceProbeIndication")
        << "(guid=" << guid << "): Calling OnDeviceProbeIndication(" << guid << ")...";
    receiver->OnDeviceProbeIndication(guid);
}

void OrvStackClient::OnDeviceConnectionStatusIndication(bool online) {
    const auto receiver = handler.lock();
    if (!receiver)
        return;
    logger.Trace("OnDeviceConnectionStatusIndication")
        << "(online=" << online << "): Calling OnDeviceOnlineStatusIndication(" << online << ")...";
    receiver->OnDeviceOnlineStatusIndication(online);
}

void OrvStackClient::OnDeviceCellularStatusIndication(const CellularStatus& status, const std::string& value) {
    const auto receiver = handler.lock();
    if (!receiver)
        return;
    const std::string& text = CellularStatusText(status);
    logger.Trace("OnDeviceCellularStatusIndication")
        << "(status=" << text << ", value=" << value << "): Calling OnDeviceCellularStatusIndication(" << text << ", "
        << value << ")...";
    receiver->OnDeviceCellularStatusIndication(status, value);
}

void OrvStackClient::OnAppsControlEventIndication(const std::string&, const std::string&) {}

void OrvStackClient::OnFeaturePrepareForShutdownIndication(const std::string&, const std::string&) {}

void OrvStackClient::OnFeatureShutdownReadinessIndication(const std::string& app, bool ready) {
    const auto receiver = handler.lock();
    if (!receiver)
        return;
    logger.Trace("OnFeatureShutdownReadinessIndication")
        << "(App=" << app << ", ready=" << ready << "): Calling OnFeatureShutdownReadinessIndication()...";
    receiver->OnFeatureShutdownReadinessIndication(app, ready);
}

} // namespace OrvStackSdk
