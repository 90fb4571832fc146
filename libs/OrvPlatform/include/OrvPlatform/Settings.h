// SPDX-License-Identifier: Apache-2.0
#pragma once

#pragma GCC visibility push(default)
namespace OrvPlatform {

/// An addition of this tree's platform. Another platform may lack it, and with it this header: ask __has_include.
///
/// Reads the levels of the log anew, by the rules of the start: `level` in `[log]` of the configuration, or its default
/// where there is none, and ORV_LOG_LEVEL after it, which wins. They are in force at once, for every logger and every
/// thread. Nothing else of the configuration is read anew.
///
/// Says what is in force now (level info, where it has changed). A file that is at fault anywhere, or cannot be read,
/// changes nothing; its faults are reported as at the start, with their lines and what is valid.
///
/// Callable from any thread, but from no signal handler. Reads a file, so it may take as long as the disk does. Never
/// throws.
/// @return false when the levels were left as they were because of a fault
bool ReloadLogLevels() noexcept;

} // namespace OrvPlatform
#pragma GCC visibility pop
