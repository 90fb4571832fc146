// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "QuilMqtt/QueueOwner.h"
#include "config/GatewayConfig.h"

#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace OrvTest {

/// The settings that a QueueOwner made after the change finds. They stand in for the configuration file.
OrvPlatform::GatewayConfig& TestConfig();
OrvPlatform::GatewayConfig::Broker& BrokerSettings();

/// An id that this process has not used yet: clients are numbered per id and process, however often a test is repeated.
std::string FreshId(const std::string& beginning);

using Messages = std::vector<std::pair<std::string, std::string>>;

/// A client that writes down what it is told.
class TestClient : public QUILMQTT::QueueOwner {
public:
    explicit TestClient(const std::string& clientId = "client") : QueueOwner(clientId) {}
    ~TestClient() override { StopDelivery(); }
    using QueueOwner::StopDelivery;

    /// Called with every message, after it was written down. To be set before Connect.
    std::function<void(const std::string& topic, const std::string& message)> onMessage;
    std::function<void()> onConnect;

    void OnPublish(const std::string& topic, const std::string& message) override;
    void OnConnect() override;
    void OnDeliveryCompleted(const std::string& topic) override;

    Messages Received() const;
    std::size_t ReceivedCount() const { return Received().size(); }
    bool HasReceived(const std::string& topic, const std::string& message) const;
    int Connects() const;
    std::vector<std::string> Delivered() const;

private:
    mutable std::mutex mutex;
    Messages received;
    std::vector<std::string> delivered;
    int connects = 0;
};

} // namespace OrvTest
