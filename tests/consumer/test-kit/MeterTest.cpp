// SPDX-License-Identifier: Apache-2.0
#include "Meter.h"

#include <OrvStackSdk/Testing.h>

#include <gtest/gtest.h>

using namespace OrvStackSdk;
using OrvStackSdk::Testing::Difference;
using std::chrono::milliseconds;
using std::chrono::seconds;

namespace {

const std::string INIT = "/orv/apps_control/features/meter/init";

class AMeter : public ::testing::Test {
protected:
    AMeter() {
        meter->connect = [this] { gateway.journal.Note("meter connects to the cloud"); };
        meter->Begin();
        gateway.Loop([this] { return meter->Step(); });
    }

    void IsConnectedOverBothPaths() {
        for (const OrvEvent event :
             {OrvEvent::ETHERNET_CONNECTED, OrvEvent::ETHERNET_IP_GAINED, OrvEvent::CELLULAR_CONNECTED,
              OrvEvent::CELLULAR_IP_GAINED, OrvEvent::CLOUD_CONNECTED})
            meter->Report(event);
        gateway.Advance(seconds(1));
        gateway.journal.Clear();
    }

    void LosesTheCloudOnEthernet() {
        gateway.poke.Fails("eth0", 7);
        meter->Report(OrvEvent::CLOUD_DISCONNECTED);
    }

    std::string Moves() { return gateway.journal.Text({"poke wwan0", "poke eth0 reached", "meter"}); }

    Testing::Gateway gateway;
    std::shared_ptr<Meter> meter = std::make_shared<Meter>();
};

TEST_F(AMeter, IsNotReloadedWhileItBoots) {
    gateway.broker.Publish(INIT, "reload");
    gateway.Advance(seconds(1));
    EXPECT_EQ(gateway.broker.Published(INIT), (std::vector<std::string>{"booting", "booting"}));
    meter->SettingsRead();
    gateway.Advance(seconds(1));
    gateway.broker.Publish(INIT, "reload");
    gateway.Advance(seconds(1));
    EXPECT_EQ(gateway.broker.Published(INIT), (std::vector<std::string>{"booting", "booting", "ready", "booting"}));
}

TEST_F(AMeter, ConnectsAnewAfterAFailOverAndAfterTheReturn) {
    IsConnectedOverBothPaths();
    LosesTheCloudOnEthernet();
    gateway.Advance(seconds(12));
    EXPECT_EQ(gateway.connman.Top(), "wwan0");
    meter->Report(OrvEvent::CLOUD_CONNECTED);
    gateway.poke.Reaches("eth0", seconds(1));
    gateway.Advance(seconds(12));
    EXPECT_EQ(gateway.connman.Top(), "eth0");
    EXPECT_EQ("", Difference("poke wwan0 reached the cloud\n"
                             "meter connects to the cloud\n"
                             "poke eth0 reached the cloud\n"
                             "meter connects to the cloud\n",
                             Moves()));
}

TEST_F(AMeter, FailsOverWithoutABrokerAndSaysSoWhenItIsBack) {
    IsConnectedOverBothPaths();
    LosesTheCloudOnEthernet();
    gateway.Advance(seconds(5));
    gateway.broker.Lose();
    gateway.Advance(seconds(7));
    EXPECT_EQ(gateway.connman.Top(), "wwan0");
    gateway.broker.Return();
    gateway.Advance(seconds(1));
    EXPECT_EQ(gateway.broker.Retained("/orv/network/wan/inhibit_dns"), "inhibit");
    EXPECT_EQ(gateway.broker.Retained("/orv/led/connected_services_yellow"), "Blink");
}

TEST_F(AMeter, KnowsTheStrengthOfTheModemsSignal) {
    gateway.broker.SetLatency(milliseconds(300));
    gateway.broker.Publish("/orv/modem/sim/strength", "-71");
    gateway.Advance(milliseconds(299));
    EXPECT_EQ(meter->Strength(), 0);
    gateway.Advance(milliseconds(1));
    EXPECT_EQ(meter->Strength(), -71);
}

TEST_F(AMeter, KnowsWhoIsReadyForAShutdown) {
    meter->ShutDown();
    EXPECT_EQ(gateway.broker.Published("/orv/apps_control/features/prepare_for_shutdown").size(), 1U);
    gateway.broker.Publish("/orv/apps_control/features/shutdown_readiness/door", "ready");
    gateway.broker.Publish("/orv/apps_control/features/shutdown_readiness/alarm", "busy");
    EXPECT_TRUE(meter->IsReady("door"));
    EXPECT_FALSE(meter->IsReady("alarm"));
}

} // namespace
