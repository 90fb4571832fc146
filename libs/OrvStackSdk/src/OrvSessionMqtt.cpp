// SPDX-License-Identifier: Apache-2.0
#include "OrvSessionMqtt.h"

#include "OrvTopics.h"
#include "StopDelivery.h"

namespace OrvStackSdk {

namespace {

constexpr int SUBSCRIPTION_QOS = 1;
constexpr bool NOT_ASSURED = false;
constexpr std::size_t SHOWN_MESSAGE_LENGTH = 128;
constexpr const char* PUBLISH_FAILED = "Failed to publish message to MQTT";

constexpr const char* FILTERS[] = {
    Topics::ALL_FEATURES_FILTER, Topics::PANEL_GUID,   Topics::PANEL_CONNECTION_STATUS,
    Topics::MODEM_IMEI,          Topics::SIM_ICCID,    Topics::SIM_TECHNOLOGY,
    Topics::SIM_PROVIDER,        Topics::SIM_STRENGTH, Topics::SHUTDOWN_READINESS_FILTER,
};

struct CellularTopic {
    const char* topic;
    CellularStatus status;
};

constexpr CellularTopic CELLULAR_TOPICS[] = {
    {Topics::MODEM_IMEI, CellularStatus::IMEI},           {Topics::SIM_ICCID, CellularStatus::ICCID},
    {Topics::SIM_TECHNOLOGY, CellularStatus::TECHNOLOGY}, {Topics::SIM_PROVIDER, CellularStatus::PROVIDER},
    {Topics::SIM_STRENGTH, CellularStatus::STRENGTH},
};

const char* LedTopic(ConnectedServicesLedType led) {
    switch (led) {
    case ConnectedServicesLedType::GREEN:
        return Topics::LED_GREEN;
    case ConnectedServicesLedType::YELLOW:
        return Topics::LED_YELLOW;
    }
    return "";
}

const char* LedWord(ConnectedServicesLedState state) {
    switch (state) {
    case ConnectedServicesLedState::ON:
        return Words::LED_ON;
    case ConnectedServicesLedState::OFF:
        return Words::LED_OFF;
    case ConnectedServicesLedState::BLINK:
        return Words::LED_BLINK;
    }
    return "";
}

const char* PanelCommandTopic(int value) {
    switch (value) {
    case 1:
        return Topics::PANEL_ALARM_ACK;
    case 2:
        return Topics::PANEL_RESET;
    case 3:
        return Topics::PANEL_ACK;
    case 4:
        return Topics::PANEL_ACK_INDIVIDUAL;
    case 5:
        return Topics::PANEL_DATE_TIME;
    case 6:
        return Topics::PANEL_GET_RC_STATUS;
    case 7:
        return Topics::PANEL_GET_RS_STATUS;
    default:
        return "";
    }
}

std::string Shown(const std::string& message) {
    return message.size() > SHOWN_MESSAGE_LENGTH ? message.substr(0, SHOWN_MESSAGE_LENGTH) + "..." : message;
}

} // namespace

OrvSessionMqtt::OrvSessionMqtt() : QueueOwner("ORV_Stack"), logger("OrvSessionMqtt", 0) {
    logger.Trace("OrvSessionMqtt");
}

OrvSessionMqtt::~OrvSessionMqtt() {
    // A message must not find the members half gone.
    Delivery<>::Stop(*this);
    logger.Trace("~OrvSessionMqtt");
}

bool OrvSessionMqtt::Connect() {
    const bool connected =
        QueueOwner::Connect(Topics::OfFeature(feature, Topics::AVAILABLE), Words::OfBool(false), true);
    if (connected)
        logger.Info() << "Connected to the MQTT Broker";
    else
        logger.Warning() << "Could not connect to the MQTT Broker";
    return connected;
}

void OrvSessionMqtt::InitRequest(const std::string& featureName) {
    feature = featureName;
    const bool connected = Connect();

    // The confirmation comes before the subscriptions: no indication can overtake it.
    if (const auto receiver = handler.lock()) {
        const Confirmation confirmation = connected ? Confirmation::ACK : Confirmation::NACK;
        logger.Trace("InitRequest") << "(featureName=" << featureName << ")"
                                    << ": Calling OnInitConfirmation(" << confirmation << ") ...";
        receiver->OnInitConfirmation(confirmation);
    }

    if (!connected) {
        logger.Error() << "(featureName=" << featureName << ")"
                       << ": Connection to MQTT broker failed.";
        return;
    }
    for (const char* filter : FILTERS)
        Subscribe(filter, SUBSCRIPTION_QOS);
    PublishRetainedMessage(Topics::ENTERPRISE_CONNECTED, Words::OfBool(false), NOT_ASSURED);
}

void OrvSessionMqtt::DeInitRequest() {
    logger.Trace("DeInitRequest");
    Disconnect();
}

void OrvSessionMqtt::SetHandler(std::weak_ptr<IOrvSessionHandler> newHandler) {
    logger.Trace("SetHandler");
    handler = std::move(newHandler);
}

void OrvSessionMqtt::FeatureAvailableRequest(const std::string& app, bool available) {
    const char* word = Words::OfBool(available);
    logger.Trace("FeatureAvailableRequest") << "(App=" << app << ", available=" << word << ")";
    if (PublishMessage(Topics::OfFeature(app, Topics::AVAILABLE), word, NOT_ASSURED) != 0)
        logger.Warning() << PUBLISH_FAILED;
}

void OrvSessionMqtt::FeatureSupportedRequest(const std::string& app, bool supported) {
    const char* word = Words::OfBool(supported);
    logger.Trace("FeatureSupportedRequest") << "(App=" << app << ", supported=" << word << ")";
    if (PublishMessage(Topics::OfFeature(app, Topics::SUPPORTED), word, NOT_ASSURED) != 0)
        logger.Warning() << PUBLISH_FAILED;
}

void OrvSessionMqtt::FeatureInitRequest(const std::string& app, const AppStatus& status) {
    switch (status) {
    case AppStatus::BOOTING:
    case AppStatus::READY:
    case AppStatus::ERROR:
    case AppStatus::NOERROR:
        logger.Trace("FeatureInitRequest") << "(App=" << app << ", initState=" << status << ")";
        PublishMessage(Topics::OfFeature(app, Topics::INIT), AppStatusText(status), NOT_ASSURED);
        return;
    case AppStatus::SUPPORTED:
    case AppStatus::AVAILABLE:
    case AppStatus::UNSUPPORTED:
        break;
    }
    logger.Warning() << "(App=" << app << ", initState=" << status << "): initState not handled";
}

void OrvSessionMqtt::FeatureInitRequest(const std::string& app, const AppAction& action) {
    switch (action) {
    case AppAction::ENABLED:
    case AppAction::DISABLED:
    case AppAction::RELOAD:
        logger.Trace("FeatureInitRequest") << "(App=" << app << ", action=" << action << ")";
        PublishMessage(Topics::OfFeature(app, Topics::INIT), CommonUtils::StringHelpers::ToLower(AppActionText(action)),
                       NOT_ASSURED);
        return;
    case AppAction::UNSUPPORTED:
        break;
    }
    logger.Warning() << "(App=" << app << ", action=" << action << "): action not handled";
}

void OrvSessionMqtt::AppsControlEventRequest(const std::string&, const std::string&) {}

void OrvSessionMqtt::FeaturePrepareForShutdownRequest() {
    logger.Trace("FeaturePrepareForShutdownRequest") << "(ShutdownRequest=" << Words::PREPARING << ")";
    if (PublishMessage(Topics::PREPARE_FOR_SHUTDOWN, Words::PREPARING, NOT_ASSURED) != 0)
        logger.Warning() << PUBLISH_FAILED;
}

void OrvSessionMqtt::FeatureShutdownReadinessRequest(const std::string&, const std::string&) {}

bool OrvSessionMqtt::LedUpdateRequest(const ConnectedServicesLedType& led, const ConnectedServicesLedState& state) {
    logger.Trace("LedUpdateRequest") << "(Led=" << led << ", State=" << state << ")";
    const char* topic = LedTopic(led);
    const char* word = LedWord(state);
    logger.Trace("LedUpdateRequest") << "(Led=" << topic << ", State=" << word << ")";
    return PublishRetainedMessage(topic, word, NOT_ASSURED) != 0;
}

void OrvSessionMqtt::StatusEntConRequest(bool connected) {
    logger.Trace("StatusEntConRequest") << "(EntCon=" << connected << ")";
    if (PublishRetainedMessage(Topics::ENTERPRISE_CONNECTED, Words::OfBool(connected), NOT_ASSURED) != 0)
        logger.Warning() << PUBLISH_FAILED;
}

void OrvSessionMqtt::StatusExtNetRequest(bool reachable) {
    // The topic tells the absence of the external network.
    const bool absent = !reachable;
    logger.Trace("StatusExtNetRequest") << "(NoExtNet=" << absent << ")";
    if (PublishRetainedMessage(Topics::NO_EXTERNAL_NETWORK, Words::OfBool(absent), NOT_ASSURED) != 0)
        logger.Warning() << PUBLISH_FAILED;
}

void OrvSessionMqtt::PanelCommandRequest(const std::string& command, int value) {
    logger.Trace("PanelCommandRequest") << "(command=" << command << ")";
    // The failure text names another class on purpose: log filters in the field look for it.
    if (PublishMessage(PanelCommandTopic(value), command, NOT_ASSURED) != 0)
        logger.Warning() << "KelboSessionMqtt::CommandReset(): Failed to publish message to MQTT";
}

void OrvSessionMqtt::SendConnectionStatus(const std::string& status) {
    if (PublishMessage(Topics::SIM_CONNECTION_STATUS, status, NOT_ASSURED) != 0)
        logger.Warning() << "Failed to publish message to MQTT for cellular";
}

void OrvSessionMqtt::OnPublish(const std::string& topic, const std::string& message) {
    const std::string shown = Shown(message);
    const std::string logContext = "(topic=" + topic + ", message=" + shown + ")";

    // Declared last: releasing it may destroy the client and, with it, this object.
    const auto receiver = handler.lock();
    if (!receiver)
        return;

    if (topic == Topics::OfFeature(feature, Topics::INIT)) {
        OnInitMessage(*receiver, message, logContext);
        return;
    }
    if (topic == Topics::OfFeature(feature, Topics::AVAILABLE)) {
        logger.Trace("OnPublish") << logContext << ": Calling OnFeatureAvailableIndication(" << shown << ") ...";
        receiver->OnFeatureAvailableIndication(feature, CommonUtils::StringHelpers::ToBoolean(message));
        return;
    }
    if (topic == Topics::OfFeature(feature, Topics::SUPPORTED)) {
        logger.Trace("OnPublish") << logContext << ": Calling OnFeatureSupportedIndication(" << shown << ") ...";
        receiver->OnFeatureSupportedIndication(feature, CommonUtils::StringHelpers::ToBoolean(message));
        return;
    }
    if (topic == Topics::PANEL_GUID) {
        logger.Trace("OnPublish") << logContext << ": Calling OnDeviceProbeIndication()...";
        receiver->OnDeviceProbeIndication(message);
        return;
    }
    if (topic == Topics::PANEL_CONNECTION_STATUS) {
        logger.Trace("OnPublish") << logContext << ": Calling OnDeviceConnectionStatusIndication()...";
        receiver->OnDeviceConnectionStatusIndication(message == Words::PANEL_UP);
        return;
    }
    for (const auto& cellular : CELLULAR_TOPICS) {
        if (topic == cellular.topic) {
            logger.Trace("OnPublish") << logContext << ": Calling OnDeviceCellularStatusIndication()...";
            receiver->OnDeviceCellularStatusIndication(cellular.status, message);
            return;
        }
    }
    if (topic.find(Topics::SHUTDOWN_READINESS) != std::string::npos) {
        logger.Trace("OnPublish") << logContext << ": Calling OnFeatureShutdownReadinessIndication()...";
        receiver->OnFeatureShutdownReadinessIndication(CommonUtils::StringHelpers::Tokenize(topic, '/').back(),
                                                       message == Words::SHUTDOWN_READY);
        return;
    }
    logger.Trace("OnPublish") << logContext << ": Message not handled";
}

void OrvSessionMqtt::OnInitMessage(IOrvSessionHandler& receiver, const std::string& message,
                                   const std::string& logContext) {
    const std::string word = CommonUtils::StringHelpers::ToUpper(message);

    // Status texts are lower case, so that of an upper-cased word none is found: a status that comes in is not acted
    // upon, the own announcements that the broker echoes included.
    const AppStatus status = AppStatusTextToEnum(word);
    if (status != AppStatus::UNSUPPORTED) {
        logger.Trace("OnPublish") << logContext << ": Calling OnFeatureInitIndication(" << status << ")...";
        receiver.OnFeatureInitIndication(feature, status);
        return;
    }
    const AppAction action = AppActionTextToEnum(word);
    if (action == AppAction::UNSUPPORTED) {
        logger.Warning() << logContext << ": Message is not handled";
        return;
    }
    logger.Trace("OnPublish") << logContext << ": Calling OnFeatureInitIndication(" << action << ")...";
    receiver.OnFeatureInitIndication(feature, action);
}

} // namespace OrvStackSdk
