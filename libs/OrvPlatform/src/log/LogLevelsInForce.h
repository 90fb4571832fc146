// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "log/LogLevels.h"

#include <atomic>
#include <string_view>

namespace OrvPlatform {

/// The levels that count in this process: those that it was started with, until others are put in their place. They
/// last as long as the process. Callable from any thread; no lock, so that a forked child finds none.
const LogLevels& LogLevelsInForce();
/// For every thread and logger, from now on.
void PutLogLevelsInForce(const LogLevels& levels);

/// The least severe level that a source may emit: its own, or the one in force for it if that is higher. Remembered,
/// and looked up again when other levels are in force.
class LogThreshold {
public:
    LogThreshold(std::string_view source, LogLevel ownLevel);

    /// Two relaxed loads as long as the levels stay the same.
    LogLevel Of(std::string_view source) const;

private:
    LogLevel LookUp(std::string_view source) const;

    const LogLevel own;
    // Which levels it was looked up in, and the result, in one word: both belong together.
    mutable std::atomic<unsigned> remembered{0};
};

} // namespace OrvPlatform
