// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "OrvStackSdk/Testing/Broker.h"
#include "OrvStackSdk/Testing/ConnectionManager.h"
#include "OrvStackSdk/Testing/Gateway.h"
#include "OrvStackSdk/Testing/Journal.h"
#include "OrvStackSdk/Testing/Poke.h"

/// The test kit: an application's unit tests link it instead of the library, and CreateClient() makes the real client
/// on a gateway that stands in the test's own process, in virtual time. Any test framework, or none, will do.
namespace OrvStackSdk {
/// See Gateway, with which a test begins.
namespace Testing {}
} // namespace OrvStackSdk
