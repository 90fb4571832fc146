// SPDX-License-Identifier: Apache-2.0
// What ThreadSanitizer must see once the strength is a plain int: the loop reads it while a callback may write it.
#include "Meter.h"

#include <OrvStackSdk/Testing.h>

int main() {
    OrvStackSdk::Testing::GatewayOptions options;
    options.delivery = OrvStackSdk::Testing::Delivery::OWN_THREAD;
    OrvStackSdk::Testing::Gateway gateway(options);
    const auto meter = std::make_shared<Meter>();
    meter->Begin();
    int shown = 0;
    gateway.Loop([&] {
        shown = meter->Strength();
        return meter->Step();
    });
    gateway.Advance(std::chrono::seconds(1));
    gateway.broker.Publish("/orv/modem/sim/strength", "-71");
    gateway.Advance(std::chrono::seconds(1));
    return shown == -71 ? 0 : 1;
}
