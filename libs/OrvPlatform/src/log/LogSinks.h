// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "log/LogLevels.h"

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

namespace OrvPlatform {

/// A record is lost; what() says why.
class LogLoss : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// Where records go. Write gives each to the kernel before it returns, and Flush waits until a file's bytes are on its
/// storage. Nothing else waits: not for who reads standard error, nor for the syslog daemon. Both throw LogLoss and may
/// be used again at once: each record is a new attempt. An output holds no lock; the caller serialises. None is killed
/// by SIGPIPE or SIGXFSZ, and the descriptors they open are not inherited by programs that are started.
class LogOutput {
public:
    LogOutput() = default;
    virtual ~LogOutput() = default;
    LogOutput(const LogOutput&) = delete;
    LogOutput& operator=(const LogOutput&) = delete;

    /// @param logger, text  escaped already
    virtual void Write(LogLevel level, std::string_view logger, std::string_view text) = 0;
    virtual void Flush() = 0;
};

/// Writes to whatever the descriptor is at the time of the record: the program may replace it. A record that the reader
/// leaves no room for is lost; one that is cut off by that is finished before the next one.
/// @param descriptor where to write, for tests another than standard error
std::unique_ptr<LogOutput> MakeStderrSink(int descriptor = 2);

/// Appends to the file at `path`. A record that would make it longer than `maxBytes` goes to a fresh file, after the
/// old ones have been renamed to path.1, path.2 and so on; `count` is the number of files in all.
std::unique_ptr<LogOutput> MakeFileSink(std::string path, std::size_t maxBytes, std::size_t count);

/// Sends each record as a datagram with the daemon facility; the syslog daemon adds the time.
std::unique_ptr<LogOutput> MakeSyslogSink(std::string socketPath, std::string programName);

/// Writes one line to standard error, without the log and without waiting. Loses it when that fails.
void WriteToStderr(const std::string& text) noexcept;

} // namespace OrvPlatform
