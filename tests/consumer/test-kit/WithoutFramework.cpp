// SPDX-License-Identifier: Apache-2.0
// The kit without a test framework, and with the messages on a thread of their own.
#include "Meter.h"

#include <OrvStackSdk/Testing.h>

#include <iostream>

int main() {
    OrvStackSdk::Testing::GatewayOptions options;
    options.delivery = OrvStackSdk::Testing::Delivery::OWN_THREAD;
    OrvStackSdk::Testing::Gateway gateway(options);
    const auto meter = std::make_shared<Meter>();
    meter->Begin();
    meter->SettingsRead();
    gateway.Loop([&] { return meter->Step(); });
    for (int round = 0; round < 100; ++round) {
        gateway.broker.Publish("/orv/apps_control/features/meter/init", "reload");
        gateway.broker.Publish("/orv/apps_control/features/shutdown_readiness/door", "ready");
        gateway.Advance(std::chrono::seconds(1));
        meter->SettingsRead();
        gateway.Advance(std::chrono::seconds(1));
    }
    const std::string difference =
        OrvStackSdk::Testing::Difference("connect ORV_Stack will \"/orv/apps_control/features/meter/available\" "
                                         "\"false\" retained\n",
                                         gateway.journal.Text({"connect ORV_Stack"}));
    std::cerr << difference;
    return difference.empty() && meter->IsReady("door") ? 0 : 1;
}
