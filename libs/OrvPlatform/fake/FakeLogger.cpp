// SPDX-License-Identifier: Apache-2.0
// Loggers that write every record into the journal when it is complete.
#include "FakeLogger.h"

#include "CommonUtils/Logger.h"
#include "Journal.h"
#include "quillogger/LogWrapper.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <new>
#include <sstream>

namespace CommonUtils {

struct LogObject::Record {
    std::string logger;
    int level;
    const char* tag;
    std::ostringstream text;
};

struct Logger::Source {
    std::string name;
    int level;
};

namespace {

std::atomic<int> lowestLevel{0};
std::atomic<bool> failsNextRecord{false};

LogObject Open(const Logger::Source& source, int level, const char* tag) {
    if (level < std::max<int>(source.level, lowestLevel))
        return LogObject(nullptr);
    if (failsNextRecord.exchange(false))
        throw std::bad_alloc();
    return LogObject(std::unique_ptr<LogObject::Record>(new LogObject::Record{source.name, level, tag, {}}));
}

} // namespace

LogObject::LogObject(std::unique_ptr<Record> content) noexcept : record(std::move(content)) {}
LogObject::LogObject(LogObject&&) noexcept = default;
LogObject& LogObject::operator=(LogObject&&) noexcept = default;

LogObject::~LogObject() {
    try {
        if (record)
            OrvPlatformFake::Journal::Add(
                OrvPlatformFake::Entry::Log(record->logger, record->level, record->tag, record->text.str()));
    } catch (const std::bad_alloc&) {
        // The record is lost, as the contract says.
    }
}

LogObject& LogObject::operator<<(const char* text) {
    if (std::ostream* stream = Stream())
        *stream << text;
    return *this;
}

LogObject& LogObject::operator<<(const std::string& text) {
    if (std::ostream* stream = Stream())
        *stream << text;
    return *this;
}

std::ostream* LogObject::Stream() noexcept {
    return record ? &record->text : nullptr;
}

Logger::Logger(const std::string& name, int level) : source(new Source{name, level}) {}
Logger::~Logger() = default;
Logger::Logger(Logger&&) noexcept = default;
Logger& Logger::operator=(Logger&&) noexcept = default;

LogObject Logger::Trace(const char* tag) {
    return Open(*source, 0, tag);
}

LogObject Logger::Debug(const char* tag) {
    return Open(*source, 1, tag);
}

LogObject Logger::Info(const char* tag) {
    return Open(*source, 2, tag);
}

LogObject Logger::Warning(const char* tag) {
    return Open(*source, 3, tag);
}

LogObject Logger::Error(const char* tag) {
    return Open(*source, 4, tag);
}

} // namespace CommonUtils

namespace OrvPlatformFake {

void FakeLogger::SetLowestLevel(int level) {
    CommonUtils::lowestLevel = level;
}

void FakeLogger::FailNextRecord() {
    CommonUtils::failsNextRecord = true;
}

} // namespace OrvPlatformFake

namespace quillogger {

void LogWrapper::Log(int level, bool flag, const char* file, int line, const char* function, const char* format, ...) {
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    OrvPlatformFake::Journal::Add(OrvPlatformFake::Entry::Wrapper(level, flag, file, line, function, text));
}

} // namespace quillogger
