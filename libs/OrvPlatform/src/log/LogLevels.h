// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace OrvPlatform {

/// How severe a record is, in the numbers of the contract. OFF is for thresholds only.
enum class LogLevel : int { TRACE, DEBUG, INFO, WARNING, ERROR, CRITICAL, OFF };

/// What is valid as a list of levels, for messages.
constexpr const char* VALID_LOG_LEVELS =
    "trace, debug, info, warning, error, critical or off (or 0 to 6), and name=level "
    "for a single logger, separated by commas: info,OrvRoute=trace";

/// Which records are wanted: those at or above a level, with exceptions for single loggers.
struct LogLevels {
    LogLevel level = LogLevel::INFO;
    std::vector<std::pair<std::string, LogLevel>> loggers;

    LogLevel Of(std::string_view logger) const;
    std::string Text() const;
};

/// "trace" ... "critical", "off".
const char* LogLevelName(LogLevel level);

/// The contract's number as a level; what is beyond either end is that end.
LogLevel LogLevelFrom(int number);

/// Puts the items of a list such as "info,OrvRoute=trace" into force. An item that cannot be read changes nothing.
/// @return the items that could not be read
std::vector<std::string> ApplyLogLevels(std::string_view list, LogLevels& levels);

} // namespace OrvPlatform
