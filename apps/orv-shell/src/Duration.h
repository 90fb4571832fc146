// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <string>

namespace OrvShell {

/// Reads a duration such as 100ms, 2s, 1.5s, 3m or 1h; "0" needs no unit. At most 24 hours.
/// @throws CommandError for anything else
std::chrono::milliseconds ParseDuration(const std::string& text);

/// The duration as ParseDuration reads it, in the largest unit that gives a whole number.
std::string DurationText(std::chrono::milliseconds duration);

} // namespace OrvShell
