// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#pragma GCC visibility push(default)
/// The path of the cloud connection, "Ethernet" or "Cellular"; empty until the route supervision has seen a connection.
/// There is one for the process. The route supervision writes it inside Tick: read it on the thread that ticks. With
/// several clients, tick them all on that thread.
extern std::string ConnInterfaceString;
#pragma GCC visibility pop
