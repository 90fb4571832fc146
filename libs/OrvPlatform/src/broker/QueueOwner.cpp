// SPDX-License-Identifier: Apache-2.0
#include "QuilMqtt/QueueOwner.h"

#include "broker/QueueOwnerCore.h"
#include "config/GatewayConfig.h"

namespace QUILMQTT {

QueueOwner::QueueOwner(const std::string& clientId)
    : core(std::make_shared<Core>(*this, clientId, OrvPlatform::Config())) {}

QueueOwner::~QueueOwner() {
    core->Abandon();
}

void QueueOwner::OnPublish(const std::string& /*topic*/, const std::string& /*message*/) {}

void QueueOwner::OnConnect() {}

void QueueOwner::OnDeliveryCompleted(const std::string& /*topic*/) {}

bool QueueOwner::Connect() {
    return core->Connect(std::nullopt);
}

bool QueueOwner::Connect(const std::string& willTopic, const std::string& willMessage, bool willRetained) {
    return core->Connect(OrvPlatform::LastWill{willTopic, willMessage, willRetained});
}

bool QueueOwner::Subscribe(const std::string& filter, int qos) {
    return core->Subscribe(filter, qos);
}

int QueueOwner::PublishMessage(const std::string& topic, const std::string& payload, bool assured) {
    return core->Publish(topic, payload, false, assured);
}

int QueueOwner::PublishRetainedMessage(const std::string& topic, const std::string& payload, bool assured) {
    return core->Publish(topic, payload, true, assured);
}

bool QueueOwner::Disconnect() {
    return core->Disconnect();
}

void QueueOwner::StopDelivery() noexcept {
    core->StopDelivery();
}

} // namespace QUILMQTT
