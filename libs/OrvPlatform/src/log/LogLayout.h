// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "log/LogLevels.h"

#include <chrono>
#include <string>
#include <string_view>

namespace OrvPlatform {

/// Appends the time in UTC as 2026-11-21T23:07:16.370Z. UTC needs no time zone rules, and does not jump when the clocks
/// change. Takes no lock: the C library's functions take that of its time zone, which nobody releases in a child that
/// is forked meanwhile.
void AppendTime(std::chrono::system_clock::time_point time, std::string& line);

/// Appends "LEVEL [LOGGER] TEXT".
void AppendRecord(LogLevel level, std::string_view logger, std::string_view text, std::string& line);

} // namespace OrvPlatform
