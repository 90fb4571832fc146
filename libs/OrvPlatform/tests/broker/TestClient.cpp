// SPDX-License-Identifier: Apache-2.0
#include "TestClient.h"

#include <algorithm>
#include <atomic>

namespace OrvTest {

OrvPlatform::GatewayConfig& TestConfig() {
    static OrvPlatform::GatewayConfig settings;
    return settings;
}

OrvPlatform::GatewayConfig::Broker& BrokerSettings() {
    return TestConfig().broker;
}

std::string FreshId(const std::string& beginning) {
    static std::atomic<int> number{0};
    return beginning + std::to_string(++number);
}

void TestClient::OnPublish(const std::string& topic, const std::string& message) {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        received.emplace_back(topic, message);
    }
    if (onMessage)
        onMessage(topic, message);
}

void TestClient::OnConnect() {
    {
        const std::lock_guard<std::mutex> lock(mutex);
        ++connects;
    }
    if (onConnect)
        onConnect();
}

void TestClient::OnDeliveryCompleted(const std::string& topic) {
    const std::lock_guard<std::mutex> lock(mutex);
    delivered.push_back(topic);
}

Messages TestClient::Received() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return received;
}

bool TestClient::HasReceived(const std::string& topic, const std::string& message) const {
    const Messages all = Received();
    return std::find(all.begin(), all.end(), std::make_pair(topic, message)) != all.end();
}

int TestClient::Connects() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return connects;
}

std::vector<std::string> TestClient::Delivered() const {
    const std::lock_guard<std::mutex> lock(mutex);
    return delivered;
}

} // namespace OrvTest

const OrvPlatform::GatewayConfig& OrvPlatform::Config() {
    return OrvTest::TestConfig();
}
