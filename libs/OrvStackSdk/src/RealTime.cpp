// SPDX-License-Identifier: Apache-2.0
// The clocks that a client is made with. Nothing else in the library reads a clock.
#include "OrvRoute.h"
#include "OrvStatusHandler.h"

namespace OrvStackSdk {

OrvRoute::Clock::time_point OrvRoute::RealTime::operator()() const {
    return Clock::now();
}

OrvStatusHandler::Clock::time_point OrvStatusHandler::RealTime::operator()() const {
    return Clock::now();
}

} // namespace OrvStackSdk
