// SPDX-License-Identifier: Apache-2.0
#include "KitScene.h"

#include <atomic>
#include <mutex>
#include <thread>

namespace OrvStackSdk::Testing {
namespace {

GatewayOptions WithADeliveryThread() {
    GatewayOptions options;
    options.delivery = Delivery::OWN_THREAD;
    return options;
}

class AGatewayWithADeliveryThread : public ::testing::Test {
protected:
    AGatewayWithADeliveryThread() {
        client = CreateClient();
        client->SetHandler(listener);
        client->Init("alarm");
        client->AppStatusRequest(AppStatus::READY);
        gateway.Settle();
    }

    Gateway gateway{WithADeliveryThread()};
    std::shared_ptr<Listener> listener = std::make_shared<Listener>();
    std::shared_ptr<IOrvStackClient> client;
};

TEST_F(AGatewayWithADeliveryThread, CallsBackOnIt) {
    std::atomic<bool> elsewhere{false};
    const auto own = std::this_thread::get_id();
    listener->then = [&] { elsewhere = std::this_thread::get_id() != own; };
    gateway.broker.Publish("/orv/panel/guid", "4711");
    gateway.Settle();
    EXPECT_TRUE(elsewhere);
}

TEST_F(AGatewayWithADeliveryThread, HasDeliveredEverythingBeforeTimeMoves) {
    std::mutex mutex;
    Lines happened;
    const auto note = [&](const char* what) {
        const std::lock_guard<std::mutex> lock(mutex);
        happened.push_back(std::to_string(gateway.Elapsed().count()) + " " + what);
    };
    listener->then = [&] { note("told"); };
    gateway.Every(100ms, [&] {
        client->AppActionRequest("alarm", AppAction::RELOAD);
        note("step");
    });
    for (int round = 0; round < 50; ++round)
        gateway.Advance(100ms);
    const std::lock_guard<std::mutex> lock(mutex); // Advance orders nothing between the threads, so that races show
    Lines steps;
    for (const auto& line : happened)
        if (line.find("step") != std::string::npos)
            steps.push_back(line);
    ASSERT_EQ(steps.size(), 51U);
    ASSERT_EQ(happened.size(), 102U) << "each of them was told at its time";
    for (std::size_t i = 0; i < happened.size(); i += 2)
        EXPECT_EQ(happened[i].substr(0, happened[i].find(' ')), happened[i + 1].substr(0, happened[i + 1].find(' ')));
}

TEST_F(AGatewayWithADeliveryThread, HoldsSlowMessagesBack) {
    gateway.broker.SetLatency(1s);
    std::atomic<int> told{0};
    listener->then = [&] { ++told; };
    gateway.broker.Publish("/orv/panel/guid", "1");
    gateway.Advance(999ms);
    EXPECT_EQ(told, 0);
    gateway.Advance(1ms);
    EXPECT_EQ(told, 1);
}

TEST_F(AGatewayWithADeliveryThread, LetsTheClientGoWhileMessagesArrive) {
    std::atomic<int> told{0};
    listener->then = [&] { ++told; };
    for (int message = 0; message < 100; ++message)
        gateway.broker.Publish("/orv/panel/guid", "1");
    client.reset();
    const int toldBefore = told;
    gateway.Settle();
    EXPECT_LE(told, toldBefore + 1) << "a callback that runs while the client is let go still ends, and is the last";
}

} // namespace
} // namespace OrvStackSdk::Testing
