// SPDX-License-Identifier: Apache-2.0
#include "Clock.h"

namespace GatewayApp {

std::chrono::steady_clock::time_point Now() {
    return std::chrono::steady_clock::now();
}

} // namespace GatewayApp
