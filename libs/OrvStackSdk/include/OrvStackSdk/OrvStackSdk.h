// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/Export.h"
#include "OrvStackSdk/IOrvStackClient.h"
#include "OrvStackSdk/IOrvStackClientHandler.h"
#include "OrvStackSdk/OrvEnums.h"

#include <memory>

namespace OrvStackSdk {

/// Makes a client, with a broker session and a route supervision of its own. The caller owns it.
///
/// Connects the route supervision to the broker at once (waits at most 3 s) and asks the connection manager to prefer
/// Ethernet. With a libcurl before 7.84 a process that uses threads calls curl_global_init() before its first Tick.
/// @throws std::runtime_error "OrvRoute cannot connect to MQTT broker." when the broker cannot be reached; no client
///         exists then, and the call may be repeated.
ORVSTACKSDK_EXPORT std::shared_ptr<IOrvStackClient> CreateClient();

} // namespace OrvStackSdk
