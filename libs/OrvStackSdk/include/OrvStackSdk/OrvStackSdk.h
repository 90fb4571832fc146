// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/Export.h"
#include "OrvStackSdk/IOrvStackClient.h"
#include "OrvStackSdk/IOrvStackClientHandler.h"
#include "OrvStackSdk/OrvEnums.h"

#include <memory>

namespace OrvStackSdk {

/// Makes a client with its own broker session and route supervision. The caller owns it.
///
/// Connects the route supervision to the broker (waits at most 3 s), asks the connection manager to prefer Ethernet,
/// and writes the status file. With a libcurl older than 7.84, a process with threads must call curl_global_init()
/// before its first Tick.
/// @throws std::runtime_error "OrvRoute cannot connect to MQTT broker." when the broker cannot be reached. No client
///         exists then, and the call may be repeated.
ORVSTACKSDK_EXPORT std::shared_ptr<IOrvStackClient> CreateClient();

} // namespace OrvStackSdk
