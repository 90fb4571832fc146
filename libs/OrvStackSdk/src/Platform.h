// SPDX-License-Identifier: Apache-2.0
#pragma once

// The platform lives in other shared libraries. This library hides its symbols, so a contract header that does not say
// otherwise would have its classes taken for hidden ones here, and the link would fail.
#pragma GCC visibility push(default)
#include "CommonUtils/Logger.h"
#include "CommonUtils/Networking/ConnmanCommands.h"
#include "CommonUtils/StringHelpers.h"
#include "ConnInterfaceString.h"
#include "GatewayMainBaseUnits/IpInterfacesMapping.h"
#include "OrvResources/StaticConfigStore.h"
#include "QuilMqtt/QueueOwner.h"
#include "quillogger/LogWrapper.h"
#pragma GCC visibility pop
