// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace spdlog::sinks {
class sink;
}

namespace OrvPlatform {

/// The sinks below write each record to the kernel before log() returns, and flush() waits until a file's bytes are on
/// its storage. Nothing else waits: not for who reads standard error, nor for the syslog daemon. They throw
/// spdlog::spdlog_ex when a record is lost and may be used again at once: each record is a new attempt. They hold no
/// lock; the caller serialises. None is killed by SIGPIPE or SIGXFSZ, and the descriptors they open are not inherited
/// by programs that are started.
///
/// The logging library's own sinks are not used because the file sink sleeps while it retries, never recovers from a
/// failed rotation and leaks its descriptor to started programs, and because syslog(3) waits for a syslog daemon that
/// hangs and does not tell when a record is lost.

/// Writes to whatever the descriptor is at the time of the record: the program may replace it. A record that the reader
/// leaves no room for is lost; one that is cut off by that is finished before the next one.
/// @param descriptor where to write, for tests another than standard error
std::shared_ptr<spdlog::sinks::sink> MakeStderrSink(int descriptor = 2);

/// Appends to the file at `path`. A record that would make it longer than `maxBytes` goes to a fresh file, after the
/// old ones have been renamed to path.1, path.2 and so on; `count` is the number of files in all.
std::shared_ptr<spdlog::sinks::sink> MakeFileSink(std::string path, std::size_t maxBytes, std::size_t count);

/// Sends each record as a datagram with the daemon facility; the syslog daemon adds the time.
std::shared_ptr<spdlog::sinks::sink> MakeSyslogSink(std::string socketPath, std::string programName);

/// Writes one line to standard error, without the log and without waiting. Loses it when that fails.
void WriteToStderr(const std::string& text) noexcept;

/// What an errno value means.
std::string ErrorText(int error);

} // namespace OrvPlatform
