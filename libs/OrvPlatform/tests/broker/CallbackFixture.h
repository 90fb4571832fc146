// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "BrokerFixture.h"

#include <functional>
#include <future>

namespace OrvTest {

class ACallback : public RealBrokerTest {
protected:
    /// Runs `action` in the OnPublish of a connected client, and waits until it has returned.
    void RunInCallback(const std::function<void(TestClient&)>& action) {
        TestClient client;
        std::promise<void> done;
        client.onMessage = [&](const std::string& topic, const std::string& message) {
            if (topic == "go" && message.empty()) {
                action(client);
                done.set_value();
            }
        };
        ASSERT_TRUE(client.Connect("will", "gone", false));
        ASSERT_TRUE(client.Subscribe("go", 1));
        ASSERT_EQ(client.PublishMessage("go", "", true), 0);
        ASSERT_EQ(done.get_future().wait_for(PATIENCE), std::future_status::ready);
        client.StopDelivery();
    }
};

} // namespace OrvTest
