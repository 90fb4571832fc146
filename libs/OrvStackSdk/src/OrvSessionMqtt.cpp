// SPDX-License-Identifier: Apache-2.0
#include "OrvSessionMqtt.h"

#include "LogLevel.h"
#include "OrvTopics.h"
#include "StopDelivery.h"

#include <algorithm>
#include <ostream>
#include <string_view>

namespace OrvStackSdk {

namespace {

constexpr int SUBSCRIPTION_QOS = 1;
constexpr bool NOT_ASSURED = false;
constexpr std::streamsize SHOWN_MESSAGE_LENGTH = 128;
constexpr const char* PUBLISH_FAILED = "Failed to publish message to MQTT";

constexpr const char* FILTERS[] = {
    Topics::ALL_FEATURES_FILTER, Topics::PANEL_GUID,   Topics::PANEL_CONNECTION_STATUS,
    Topics::MODEM_IMEI,          Topics::SIM_ICCID,    Topics::SIM_TECHNOLOGY,
    Topics::SIM_PROVIDER,        Topics::SIM_STRENGTH, Topics::SHUTDOWN_READINESS_FILTER,
};

struct CellularTopic {
    std::string_view topic;
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
        break;
    }
    return Topics::LED_YELLOW;
}

const char* LedWord(ConnectedServicesLedState state) {
    switch (state) {
    case ConnectedServicesLedState::ON:
        return Words::LED_ON;
    case ConnectedServicesLedState::OFF:
        return Words::LED_OFF;
    case ConnectedServicesLedState::BLINK:
        break;
    }
    return Words::LED_BLINK;
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

// Streaming these two composes no text for a record that is off.

/// A message as records show it: only its beginning.
struct Shown {
    const std::string& message;
};

std::ostream& operator<<(std::ostream& stream, const Shown& shown) {
    const auto length = static_cast<std::streamsize>(shown.message.size());
    stream.write(shown.message.data(), std::min(length, SHOWN_MESSAGE_LENGTH));
    return length > SHOWN_MESSAGE_LENGTH ? stream << "..." : stream;
}

/// The beginning of every record about a message.
struct LogContext {
    const std::string& topic;
    const std::string& message;
};

std::ostream& operator<<(std::ostream& stream, const LogContext& context) {
    return stream << "(topic=" << context.topic << ", message=" << Shown{context.message} << ")";
}

/// The rest of a topic of this feature after the feature's name; nothing for any other topic.
std::string_view BehindFeature(std::string_view topic, std::string_view feature) {
    for (const std::string_view piece : {std::string_view(Topics::FEATURES), feature}) {
        if (topic.compare(0, piece.size(), piece) != 0)
            return {};
        topic.remove_prefix(piece.size());
    }
    return topic;
}

} // namespace

OrvSessionMqtt::OrvSessionMqtt() : QueueOwner("ORV_Stack"), logger("OrvSessionMqtt", TRACE) {
    logger.Trace("OrvSessionMqtt");
}

OrvSessionMqtt::~OrvSessionMqtt() {
    // No message may arrive while the members are being destroyed.
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
        logger.Trace("InitRequest") << "(featureName=" << featureName << "): Calling OnInitConfirmation("
                                    << ConfirmationText(confirmation) << ") ...";
        receiver->OnInitConfirmation(confirmation);
    }

    if (!connected) {
        logger.Error() << "(featureName=" << featureName << "): Connection to MQTT broker failed.";
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

void OrvSessionMqtt::WarnOf(int publishStatus, const char* failure) {
    if (publishStatus != 0)
        logger.Warning() << failure;
}

void OrvSessionMqtt::FeatureAvailableRequest(const std::string& app, bool available) {
    const std::string word = Words::OfBool(available);
    logger.Trace("FeatureAvailableRequest") << "(App=" << app << ", available=" << word << ")";
    WarnOf(PublishMessage(Topics::OfFeature(app, Topics::AVAILABLE), word, NOT_ASSURED), PUBLISH_FAILED);
}

void OrvSessionMqtt::FeatureSupportedRequest(const std::string& app, bool supported) {
    const std::string word = Words::OfBool(supported);
    logger.Trace("FeatureSupportedRequest") << "(App=" << app << ", supported=" << word << ")";
    WarnOf(PublishMessage(Topics::OfFeature(app, Topics::SUPPORTED), word, NOT_ASSURED), PUBLISH_FAILED);
}

// A value that is no enumerator has no text, and asking for it throws. Each request asks first, before it logs or
// publishes anything, so that it throws at every log level.

void OrvSessionMqtt::FeatureInitRequest(const std::string& app, const AppStatus& status) {
    const std::string& text = AppStatusText(status);
    if (status < AppStatus::BOOTING || status > AppStatus::NOERROR) {
        logger.Warning() << "(App=" << app << ", initState=" << text << "): initState not handled";
        return;
    }
    logger.Trace("FeatureInitRequest") << "(App=" << app << ", initState=" << text << ")";
    PublishMessage(Topics::OfFeature(app, Topics::INIT), text, NOT_ASSURED);
}

void OrvSessionMqtt::FeatureInitRequest(const std::string& app, const AppAction& action) {
    const std::string& text = AppActionText(action);
    if (action > AppAction::RELOAD) {
        logger.Warning() << "(App=" << app << ", action=" << text << "): action not handled";
        return;
    }
    logger.Trace("FeatureInitRequest") << "(App=" << app << ", action=" << text << ")";
    PublishMessage(Topics::OfFeature(app, Topics::INIT), CommonUtils::StringHelpers::ToLower(text), NOT_ASSURED);
}

void OrvSessionMqtt::AppsControlEventRequest(const std::string&, const std::string&) {}

void OrvSessionMqtt::FeaturePrepareForShutdownRequest() {
    logger.Trace("FeaturePrepareForShutdownRequest") << "(ShutdownRequest=" << Words::PREPARING << ")";
    WarnOf(PublishMessage(Topics::PREPARE_FOR_SHUTDOWN, Words::PREPARING, NOT_ASSURED), PUBLISH_FAILED);
}

void OrvSessionMqtt::FeatureShutdownReadinessRequest(const std::string&, const std::string&) {}

bool OrvSessionMqtt::LedUpdateRequest(const ConnectedServicesLedType& led, const ConnectedServicesLedState& state) {
    const std::string& ledText = ConnectedServicesLedTypeText(led);
    const std::string& stateText = ConnectedServicesLedStateText(state);
    logger.Trace("LedUpdateRequest") << "(Led=" << ledText << ", State=" << stateText << ")";
    const std::string topic = LedTopic(led);
    const std::string word = LedWord(state);
    logger.Trace("LedUpdateRequest") << "(Led=" << topic << ", State=" << word << ")";
    return PublishRetainedMessage(topic, word, NOT_ASSURED) != 0;
}

void OrvSessionMqtt::StatusEntConRequest(bool connected) {
    logger.Trace("StatusEntConRequest") << "(EntCon=" << connected << ")";
    WarnOf(PublishRetainedMessage(Topics::ENTERPRISE_CONNECTED, Words::OfBool(connected), NOT_ASSURED), PUBLISH_FAILED);
}

void OrvSessionMqtt::StatusExtNetRequest(bool reachable) {
    // The topic says whether the external network is absent.
    const bool absent = !reachable;
    logger.Trace("StatusExtNetRequest") << "(NoExtNet=" << absent << ")";
    WarnOf(PublishRetainedMessage(Topics::NO_EXTERNAL_NETWORK, Words::OfBool(absent), NOT_ASSURED), PUBLISH_FAILED);
}

void OrvSessionMqtt::PanelCommandRequest(const std::string& command, int value) {
    logger.Trace("PanelCommandRequest") << "(command=" << command << ")";
    // This text names another class, and the same command for all commands. It is frozen like every other text.
    WarnOf(PublishMessage(PanelCommandTopic(value), command, NOT_ASSURED),
           "KelboSessionMqtt::CommandReset(): Failed to publish message to MQTT");
}

void OrvSessionMqtt::SendConnectionStatus(const std::string& status) {
    WarnOf(PublishMessage(Topics::SIM_CONNECTION_STATUS, status, NOT_ASSURED),
           "Failed to publish message to MQTT for cellular");
}

void OrvSessionMqtt::OnPublish(const std::string& topic, const std::string& message) {
    // Releasing it may destroy the client and with it this object, so nothing may follow but the return.
    const auto receiver = handler.lock();
    if (receiver)
        Dispatch(*receiver, topic, message);
}

void OrvSessionMqtt::Dispatch(IOrvSessionHandler& receiver, const std::string& topic, const std::string& message) {
    const LogContext context{topic, message};
    const auto trace = [this, &context](const char* text) { logger.Trace("OnPublish") << context << text; };

    const std::string_view ownSuffix = BehindFeature(topic, feature);
    if (ownSuffix == Topics::INIT) {
        OnInitMessage(receiver, topic, message);
        return;
    }
    if (ownSuffix == Topics::AVAILABLE) {
        logger.Trace("OnPublish") << context << ": Calling OnFeatureAvailableIndication(" << Shown{message} << ") ...";
        receiver.OnFeatureAvailableIndication(feature, CommonUtils::StringHelpers::ToBoolean(message));
        return;
    }
    if (ownSuffix == Topics::SUPPORTED) {
        logger.Trace("OnPublish") << context << ": Calling OnFeatureSupportedIndication(" << Shown{message} << ") ...";
        receiver.OnFeatureSupportedIndication(feature, CommonUtils::StringHelpers::ToBoolean(message));
        return;
    }
    if (topic == std::string_view(Topics::PANEL_GUID)) {
        trace(": Calling OnDeviceProbeIndication()...");
        receiver.OnDeviceProbeIndication(message);
        return;
    }
    if (topic == std::string_view(Topics::PANEL_CONNECTION_STATUS)) {
        trace(": Calling OnDeviceConnectionStatusIndication()...");
        receiver.OnDeviceConnectionStatusIndication(message == Words::PANEL_UP);
        return;
    }
    for (const auto& cellular : CELLULAR_TOPICS) {
        if (topic == cellular.topic) {
            trace(": Calling OnDeviceCellularStatusIndication()...");
            receiver.OnDeviceCellularStatusIndication(cellular.status, message);
            return;
        }
    }
    if (topic.find(Topics::SHUTDOWN_READINESS) != std::string::npos) {
        trace(": Calling OnFeatureShutdownReadinessIndication()...");
        receiver.OnFeatureShutdownReadinessIndication(CommonUtils::StringHelpers::Tokenize(topic, '/').back(),
                                                      message == Words::SHUTDOWN_READY);
        return;
    }
    trace(": Message not handled");
}

void OrvSessionMqtt::OnInitMessage(IOrvSessionHandler& receiver, const std::string& topic, const std::string& message) {
    const LogContext context{topic, message};
    const std::string word = CommonUtils::StringHelpers::ToUpper(message);

    // The texts of the states are lower case, and the word is upper case: no incoming state is ever found here. The
    // application's own announcements, which the broker sends back, are not found either.
    const AppStatus status = AppStatusTextToEnum(word);
    if (status != AppStatus::UNSUPPORTED) {
        logger.Trace("OnPublish") << context << ": Calling OnFeatureInitIndication(" << AppStatusText(status) << ")...";
        receiver.OnFeatureInitIndication(feature, status);
        return;
    }
    const AppAction action = AppActionTextToEnum(word);
    if (action == AppAction::UNSUPPORTED) {
        logger.Warning() << context << ": Message is not handled";
        return;
    }
    logger.Trace("OnPublish") << context << ": Calling OnFeatureInitIndication(" << AppActionText(action) << ")...";
    receiver.OnFeatureInitIndication(feature, action);
}

} // namespace OrvStackSdk
