// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>

#pragma GCC visibility push(default)
/// The path that carries the cloud connection, "Ethernet" or "Cellular"; empty until the route supervisor has seen one.
/// One per process. Written by the route supervisor inside the application's Tick: read it on the thread that ticks.
extern std::string ConnInterfaceString;
#pragma GCC visibility pop
