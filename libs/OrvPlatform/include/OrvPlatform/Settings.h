// SPDX-License-Identifier: Apache-2.0
#pragma once

#pragma GCC visibility push(default)
namespace OrvPlatform {

/// Only this tree's platform has this function. Another platform may lack it and this header: use __has_include.
///
/// Reads the log levels again, by the rules of the start: `level` in `[log]` of the configuration, or its default, and
/// ORV_LOG_LEVEL, which overrides both. The levels take effect at once, for every logger and every thread. Nothing else
/// of the configuration is read again.
///
/// Logs the levels (at level info) if they have changed. If the file has any fault or cannot be read, the levels stay
/// as they are, and the faults are reported as at the start, with their lines and the valid values.
///
/// Callable on any thread, but not in a signal handler. May take as long as the disk needs to read a file. Never
/// throws.
/// @return false when the levels stay as they were because of a fault
bool ReloadLogLevels() noexcept;

} // namespace OrvPlatform
#pragma GCC visibility pop
