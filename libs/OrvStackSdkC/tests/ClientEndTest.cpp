// SPDX-License-Identifier: Apache-2.0
// The end of a client, wherever it comes.
#include "CScene.h"
#include "OrvStackSdk/Testing.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

namespace OrvStackSdk::Testing {
namespace {

class AClientThatEnds : public ::testing::TestWithParam<Delivery> {
protected:
    static GatewayOptions Options() {
        GatewayOptions options;
        options.delivery = GetParam();
        return options;
    }

    Gateway gateway{Options()};
    std::unique_ptr<Application> application = std::make_unique<Application>();
    const orv_callbacks callbacks = AllCallbacks();
    orv_client* client = MakeClient(&callbacks, application.get());
};

TEST_P(AClientThatEnds, WithoutAGoodByeLeavesItsLastWill) {
    orv_client_destroy(client);
    gateway.Settle();
    EXPECT_EQ(gateway.broker.Retained(FEATURES + "alarm/available"), "false");
}

TEST_P(AClientThatEnds, WithAGoodByeLeavesNone) {
    EXPECT_EQ(orv_client_deinit(client), ORV_OK);
    orv_client_destroy(client);
    gateway.Settle();
    EXPECT_EQ(gateway.broker.Retained(FEATURES + "alarm/available"), "");
}

TEST_P(AClientThatEnds, TouchesItsUserNoMore) {
    orv_client_destroy(client);
    application.reset();
    gateway.broker.Publish("/orv/panel/guid", "4711");
    gateway.Advance(1s);
}

TEST_P(AClientThatEnds, InsideACallbackHearsNothingAfterIt) {
    application->then = [this] { orv_client_destroy(client); };
    gateway.broker.Publish("/orv/panel/connection_status", "UP");
    gateway.broker.Publish("/orv/panel/connection_status", "DOWN");
    gateway.Settle();
    EXPECT_EQ(application->Heard(), (Lines{"online 1"}));
    EXPECT_FALSE(gateway.broker.IsConnected());
    EXPECT_EQ(gateway.broker.Retained(FEATURES + "alarm/available"), "false");
}

TEST_P(AClientThatEnds, MayBeUsedUntilThenInsideTheCallback) {
    application->then = [this] {
        EXPECT_EQ(orv_client_start(client), ORV_OK);
        EXPECT_EQ(orv_client_tick(client, 100), ORV_OK);
        EXPECT_EQ(orv_client_deinit(client), ORV_OK);
        EXPECT_EQ(orv_client_init(client, "door"), ORV_OK);
        EXPECT_EQ(orv_client_app_status(client, ORV_APP_STATUS_READY), ORV_OK);
        orv_client_destroy(client);
    };
    gateway.broker.Publish("/orv/panel/connection_status", "UP");
    gateway.Settle();
    EXPECT_EQ(gateway.broker.Published(FEATURES + "alarm/init"), (Lines{"booting"}));
    EXPECT_EQ(gateway.broker.Published(FEATURES + "door/init"), (Lines{"ready"}));
}

INSTANTIATE_TEST_SUITE_P(Here, AClientThatEnds, ::testing::Values(Delivery::TEST_THREAD));
INSTANTIATE_TEST_SUITE_P(Elsewhere, AClientThatEnds, ::testing::Values(Delivery::OWN_THREAD));

/// Set on one thread, waited for on another.
class Flag {
public:
    void Set() {
        const std::lock_guard<std::mutex> lock(mutex);
        isSet = true;
        changed.notify_all();
    }
    bool IsSetWithin(std::chrono::milliseconds limit) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, limit, [this] { return isSet; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool isSet = false;
};

TEST(AnEndOnAnotherThread, WaitsForTheCallbackThatRuns) {
    Gateway gateway;
    Application application;
    const orv_callbacks callbacks = AllCallbacks();
    orv_client* client = MakeClient(&callbacks, &application);
    Flag isCalled;
    Flag hasEnded;
    std::thread other;
    application.then = [&] {
        other = std::thread([&] {
            isCalled.Set();
            orv_client_destroy(client);
            hasEnded.Set();
        });
        EXPECT_TRUE(isCalled.IsSetWithin(10s));
        EXPECT_FALSE(hasEnded.IsSetWithin(50ms)); // as long as this callback runs
        EXPECT_EQ(orv_client_tick(client, 100), ORV_OK);
    };
    gateway.broker.Publish("/orv/panel/connection_status", "UP");
    EXPECT_TRUE(hasEnded.IsSetWithin(10s));
    other.join();
    EXPECT_EQ(application.Heard(), (Lines{"online 1"}));
}

} // namespace
} // namespace OrvStackSdk::Testing
