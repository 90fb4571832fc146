// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "log/LogChannel.h"

/// What a process has once; ProcessWide.cpp owns it.
namespace OrvPlatform {

/// The log of this process, made on first use with the configured output and never destroyed.
LogChannel& ProcessLog();

/// The levels that the settings of this process name; see LogLevelsInForce() for those that count.
const LogLevels& LogLevelsAtStart();

} // namespace OrvPlatform
