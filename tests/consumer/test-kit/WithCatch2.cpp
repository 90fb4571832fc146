// SPDX-License-Identifier: Apache-2.0
// The kit beside Catch2: one test as it looks there.
#define CATCH_CONFIG_MAIN
#include "Meter.h"

#include <OrvStackSdk/Testing.h>

#include <catch2/catch.hpp>

TEST_CASE("a meter announces itself as booting") {
    OrvStackSdk::Testing::Gateway gateway;
    const auto meter = std::make_shared<Meter>();
    meter->Begin();
    REQUIRE(gateway.broker.Published("/orv/apps_control/features/meter/init") == std::vector<std::string>{"booting"});
}
