// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>

namespace GatewayApp {

/// The clock that every delay of the application is measured with. A source of its own, so that a test in virtual time
/// puts its own clock here.
std::chrono::steady_clock::time_point Now();

} // namespace GatewayApp
