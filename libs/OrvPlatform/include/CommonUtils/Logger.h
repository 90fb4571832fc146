// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <ostream>
#include <string>

#pragma GCC visibility push(default)
namespace CommonUtils {

/// One log record under construction: text is streamed into it, and it is emitted as a whole when it is destroyed.
/// Values are formatted as a std::ostream with default flags would format them (a bool as 1 or 0).
/// A record whose level is off formats nothing and allocates nothing.
/// One record belongs to one thread; records of different threads do not disturb each other.
class LogObject {
public:
    /// The other one is left empty and emits nothing.
    LogObject(LogObject&& other) noexcept;
    /// The record that was here is emitted; the other one is left empty.
    LogObject& operator=(LogObject&& other) noexcept;
    LogObject(const LogObject&) = delete;
    LogObject& operator=(const LogObject&) = delete;

    /// Emits the record as one line, whatever was streamed into it: control characters and bytes that are not valid
    /// UTF-8 are escaped, and a record of more than 8192 bytes is cut. Never throws: if the sink fails, the record is
    /// lost.
    ~LogObject();

    /// Appends a text.
    LogObject& operator<<(const char* text);
    /// Appends a text.
    LogObject& operator<<(const std::string& text);

    /// Appends a value.
    template <typename T>
    LogObject& operator<<(const T& value) {
        if (std::ostream* stream = Stream())
            *stream << value;
        return *this;
    }

    /// A record under construction, defined by the implementation.
    struct Record;
    /// For the implementation; null for a record that is off.
    explicit LogObject(std::unique_ptr<Record> content) noexcept;

private:
    std::ostream* Stream() noexcept; // null when the record is off

    std::unique_ptr<Record> record;
};

/// A named source of log records. Cheap to construct; any number may share a name.
/// Every operation may be called on any thread, even during static destruction. None blocks longer than the sink does,
/// and none throws because of the sink.
class Logger {
public:
    /// @param level the least severe level that this logger emits: 0 trace, 1 debug, 2 info, 3 warning, 4 error,
    ///              5 critical. The configuration, or ORV_LOG_LEVEL in the environment, may set a higher level for all
    ///              loggers or for this one by its name, but never a lower one.
    Logger(const std::string& name, int level);
    ~Logger();
    /// The other one may only be assigned to or destroyed.
    Logger(Logger&& other) noexcept;
    /// The other one may only be assigned to or destroyed.
    Logger& operator=(Logger&& other) noexcept;
    Logger(const Logger&) = delete;
    Logger& operator=(const Logger&) = delete;

    /// Opens a record of the level in the name. `tag`, where given, names the operation that reports; it is written
    /// before the text and must outlive the record (a literal does).
    LogObject Trace(const char* tag = nullptr);
    LogObject Debug(const char* tag = nullptr);   ///< Likewise.
    LogObject Info(const char* tag = nullptr);    ///< Likewise.
    LogObject Warning(const char* tag = nullptr); ///< Likewise.
    LogObject Error(const char* tag = nullptr);   ///< Likewise.

    /// What a logger keeps, defined by the implementation.
    struct Source;

private:
    std::unique_ptr<Source> source;
};

} // namespace CommonUtils
#pragma GCC visibility pop
