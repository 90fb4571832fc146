// SPDX-License-Identifier: Apache-2.0
#include "QuilMqtt/QueueOwner.h"

#include <algorithm>
#include <cstdio>

namespace QUILMQTT {

namespace {

std::vector<QueueOwner*>& Owners() {
    static std::vector<QueueOwner*> owners;
    return owners;
}

bool Matches(const std::string& filter, const std::string& topic) {
    const std::string beginning = filter.substr(0, filter.find_first_of("#+"));
    return filter == topic || (beginning != filter && topic.compare(0, beginning.size(), beginning) == 0);
}

} // namespace

QueueOwner::QueueOwner(const std::string& clientId) : id(clientId) {
    Owners().push_back(this);
}

QueueOwner::~QueueOwner() {
    Forget();
}

void QueueOwner::OnPublish(const std::string&, const std::string&) {}

void QueueOwner::OnConnect() {}

void QueueOwner::OnDeliveryCompleted(const std::string&) {}

bool QueueOwner::Connect() {
    std::printf("connect %s\n", id.c_str());
    connected = true;
    return true;
}

bool QueueOwner::Connect(const std::string& willTopic, const std::string& willMessage, bool) {
    std::printf("will %s %s\n", willTopic.c_str(), willMessage.c_str());
    return Connect();
}

bool QueueOwner::Subscribe(const std::string& filter, int) {
    filters.push_back(filter);
    return connected;
}

int QueueOwner::PublishMessage(const std::string& topic, const std::string& payload, bool) {
    if (!connected)
        return 1;
    std::printf("publish %s %s\n", topic.c_str(), payload.c_str());
    const auto receivers = Owners();
    for (QueueOwner* receiver : receivers) {
        const auto matches = [&topic](const std::string& filter) { return Matches(filter, topic); };
        if (receiver->connected && std::any_of(receiver->filters.begin(), receiver->filters.end(), matches))
            receiver->OnPublish(topic, payload);
    }
    return 0;
}

int QueueOwner::PublishRetainedMessage(const std::string& topic, const std::string& payload, bool assured) {
    return PublishMessage(topic, payload, assured);
}

bool QueueOwner::Disconnect() {
    const bool was = connected;
    connected = false;
    filters.clear();
    return was;
}

void QueueOwner::Forget() {
    auto& owners = Owners();
    owners.erase(std::remove(owners.begin(), owners.end(), this), owners.end());
}

#if MAKER_STOPS_DELIVERY
void QueueOwner::StopDelivery() noexcept {
    std::printf("stop-delivery %s\n", id.c_str());
    Forget();
}
#endif

} // namespace QUILMQTT
