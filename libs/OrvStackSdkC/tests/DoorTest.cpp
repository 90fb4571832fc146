// SPDX-License-Identifier: Apache-2.0
// An application that is compiled as C, on the test kit.
#include "Door.h"
#include "OrvStackSdk/Testing.h"

#include <gtest/gtest.h>

using namespace std::chrono_literals;

namespace {

const std::string INIT = "/orv/apps_control/features/door/init";

class AnApplicationInC : public ::testing::TestWithParam<const door_functions*> {
protected:
    AnApplicationInC() {
        EXPECT_EQ(functions.open(&door), ORV_OK);
        gateway.Every(100ms, [this] { EXPECT_EQ(functions.step(&door), ORV_OK); });
        gateway.Advance(1s);
    }
    ~AnApplicationInC() override { functions.close(&door); }

    OrvStackSdk::Testing::Gateway gateway;
    const door_functions& functions = *GetParam();
    struct door door {};
};

TEST_P(AnApplicationInC, IsAnnouncedAndReady) {
    EXPECT_EQ(gateway.broker.Published(INIT), (std::vector<std::string>{"booting", "ready"}));
}

TEST_P(AnApplicationInC, IsReloaded) {
    gateway.broker.Publish(INIT, "reload");
    gateway.Advance(1s);
    EXPECT_EQ(gateway.broker.Published(INIT), (std::vector<std::string>{"booting", "ready", "booting"}));
}

TEST_P(AnApplicationInC, KnowsThePanelTheModemAndWhoIsReadyForAShutdown) {
    gateway.broker.Publish("/orv/panel/guid", "4711");
    gateway.broker.Publish("/orv/panel/connection_status", "UP");
    gateway.broker.Publish("/orv/modem/sim/strength", "-71");
    gateway.broker.Publish("/orv/apps_control/features/shutdown_readiness/alarm", "ready");
    EXPECT_STREQ(door.panel, "4711");
    EXPECT_EQ(door.panel_online, 1);
    EXPECT_EQ(door.strength, -71);
    EXPECT_STREQ(door.ready_app, "alarm");
}

TEST_P(AnApplicationInC, ReconnectsOnceAfterAFailOver) {
    for (const int event : {ORV_EVENT_ETHERNET_IP_GAINED, ORV_EVENT_CELLULAR_IP_GAINED, ORV_EVENT_CLOUD_CONNECTED})
        EXPECT_EQ(orv_client_event(door.client, event), ORV_OK);
    gateway.Advance(1s);
    gateway.poke.Fails("eth0", 7);
    EXPECT_EQ(orv_client_event(door.client, ORV_EVENT_CLOUD_DISCONNECTED), ORV_OK);
    gateway.Advance(12s);
    EXPECT_EQ(gateway.connman.Top(), "wwan0");
    EXPECT_EQ(door.reconnects, 1);
}

INSTANTIATE_TEST_SUITE_P(C99, AnApplicationInC, ::testing::Values(&doorInC99));
INSTANTIATE_TEST_SUITE_P(C11, AnApplicationInC, ::testing::Values(&doorInC11));

} // namespace
