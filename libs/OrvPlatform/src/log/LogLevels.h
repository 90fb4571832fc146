// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace OrvPlatform {

constexpr int offLevel = 6;

/// What is valid as a list of levels, for messages.
constexpr const char* validLogLevels =
    "trace, debug, info, warning, error, critical or off (or 0 to 6), and name=level "
    "for a single logger, separated by commas: info,OrvRoute=trace";

/// Which records are wanted: those at or above a level, with exceptions for single loggers.
struct LogLevels {
    int level = 2; // 0 trace ... 5 critical, 6 off
    std::vector<std::pair<std::string, int>> loggers;

    int Of(std::string_view logger) const;
    std::string Text() const;
};

/// "trace" ... "critical", "off".
const char* LogLevelName(int level);

/// Puts the items of a list such as "info,OrvRoute=trace" into force. An item that cannot be read changes nothing.
/// @return the items that could not be read
std::vector<std::string> ApplyLogLevels(std::string_view list, LogLevels& levels);

} // namespace OrvPlatform
