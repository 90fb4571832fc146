// SPDX-License-Identifier: Apache-2.0
#include "Meter.h"

#include <iostream>
#include <thread>

int main() try {
    const auto meter = std::make_shared<Meter>();
    meter->Begin();
    meter->SettingsRead();
    for (;;)
        std::this_thread::sleep_for(meter->Step());
} catch (const std::exception& problem) {
    std::cerr << "meter: " << problem.what() << std::endl;
    return 1;
}
