// SPDX-License-Identifier: Apache-2.0
#include "OrvStackSdk/Testing/Broker.h"

#include "FakeBroker.h"
#include "Kit.h"
#include "QuilMqtt/QueueOwner.h"
#include "VirtualTime.h"

namespace OrvStackSdk::Testing {

namespace {

using OrvPlatformFake::FakeBroker;

constexpr const char* SESSION = "ORV_Stack";

} // namespace

void Kit::ReconnectLater() {
    schedule.Add(VirtualTime::Now() + reconnectDelay, [] {
        if (FakeBroker::Get().RestoreConnections())
            AddToJournal("broker connections are back");
        return std::nullopt;
    });
}

void Broker::Publish(const std::string& topic, const std::string& payload, bool retained) {
    AddToJournal(std::string("neighbour publishes ") + (retained ? "retained " : "") + "\"" + topic + "\" \"" +
                 payload + "\"");
    FakeBroker::Get().Inject(topic, payload, retained);
    if (!Kit::Get().deliveryThread)
        Kit::Get().Deliver();
}

std::vector<Broker::Message> Broker::Published() const {
    const std::lock_guard<std::mutex> lock(Kit::Get().publishedMutex);
    return Kit::Get().published;
}

std::vector<std::string> Broker::Published(const std::string& topic) const {
    std::vector<std::string> payloads;
    for (const auto& message : Published())
        if (message.topic == topic)
            payloads.push_back(message.payload);
    return payloads;
}

void Broker::Clear() {
    const std::lock_guard<std::mutex> lock(Kit::Get().publishedMutex);
    Kit::Get().published.clear();
}

std::string Broker::Retained(const std::string& topic) const {
    return FakeBroker::Get().Retained(topic);
}

bool Broker::IsConnected() const {
    return FakeBroker::Get().IsConnected(SESSION);
}

void Broker::Lose() {
    AddToJournal("broker lost");
    FakeBroker::Get().Stop();
}

void Broker::Return() {
    AddToJournal("broker back");
    FakeBroker::Get().Start();
    Kit::Get().ReconnectLater();
}

void Broker::BreakConnections() {
    AddToJournal("broker connections break");
    FakeBroker::Get().DropConnections();
    Kit::Get().ReconnectLater();
}

void Broker::RefuseConnections(bool refuse) {
    FakeBroker::Get().SetReachable(!refuse);
    if (!refuse)
        Kit::Get().ReconnectLater();
}

void Broker::RefuseInit(bool refuse) {
    FakeBroker::Get().SetRefused(refuse ? SESSION : "");
    if (!refuse)
        Kit::Get().ReconnectLater();
}

void Broker::RefusePublications(bool refuse) {
    using QUILMQTT::QueueOwner;
    FakeBroker::Get().SetPublishStatus(refuse ? QueueOwner::OUTSTANDING_FULL : QueueOwner::HANDED_OVER);
}

void Broker::SetLatency(std::chrono::milliseconds latency) {
    FakeBroker::Get().SetLatency(latency, [] { return VirtualTime::Now(); });
    Kit::Get().slow = true;
}

void Broker::SetReconnectDelay(std::chrono::milliseconds delay) {
    Kit::Get().reconnectDelay = delay;
}

} // namespace OrvStackSdk::Testing
