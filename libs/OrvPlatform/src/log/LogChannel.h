// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "log/LogSinks.h"

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>

namespace OrvPlatform {

/// The most bytes that tag and text of a record have in the log, escapes included. What is longer is cut, and the line
/// says how many bytes there were.
constexpr std::size_t MAX_RECORD_BYTES = 8192;

struct LogRecord {
    LogLevel level = LogLevel::TRACE;
    std::string_view logger;             // escaped already
    std::string_view tag;                // may be empty
    std::string_view text;               // what there is of it
    std::size_t textBytes = text.size(); // how much of it was meant; more than text.size() when it is cut already
    bool flush = false;
};

/// Brings records to an output, one at a time. When that fails, the record is lost; standard error says so once, and
/// the output itself, as soon as it works again, how many records are missing.
class LogChannel {
public:
    explicit LogChannel(std::unique_ptr<LogOutput> destination);
    LogChannel(const LogChannel&) = delete;
    LogChannel& operator=(const LogChannel&) = delete;

    /// Callable from any thread. Leaves errno alone.
    void Write(const LogRecord& record) noexcept;

    /// Round a fork, so that the child does not inherit a lock that nobody will release.
    void BeforeFork() { mutex.lock(); }
    void AfterFork() { mutex.unlock(); }

private:
    void Compose(const LogRecord& record);
    void NoteLoss(const char* reason) noexcept;
    void ReportLoss();

    std::mutex mutex;
    const std::unique_ptr<LogOutput> output;
    std::string line; // reused
    std::size_t lost = 0;
    std::string lossReason;
};

} // namespace OrvPlatform
