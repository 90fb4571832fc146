// SPDX-License-Identifier: Apache-2.0
// The log, as a thing that may take its time and under which no lock may be held.
#include "sim/LabLog.h"

#include "CommonUtils/Logger.h"
#include "sim/Simulation.h"

#include <sstream>
#include <utility>

namespace OrvLab {

Time LabLog::longestStall = 0;
std::function<void(const std::string& text)> LabLog::onRecord;
std::function<bool(const LabLog::Record& record)> LabLog::taker;

} // namespace OrvLab

namespace CommonUtils {

struct LogObject::Record {
    std::string logger;
    const char* level;
    std::string tag;
    std::ostringstream text;
};

struct Logger::Source {
    std::string name;
};

namespace {

LogObject Opened(const std::string& logger, const char* level, const char* tag) {
    const OrvLab::Unwatched unwatched;
    return LogObject(std::make_unique<LogObject::Record>(
        LogObject::Record{logger, level, tag != nullptr ? tag : "", std::ostringstream()}));
}

} // namespace

LogObject::LogObject(std::unique_ptr<Record> content) noexcept : record(std::move(content)) {}
LogObject::LogObject(LogObject&&) noexcept = default;

LogObject::~LogObject() {
    const OrvLab::Unwatched unwatched;
    OrvLab::Simulation* sim = OrvLab::Simulation::Current();
    if (!record || sim == nullptr)
        return;
    if (OrvLab::LabLog::taker &&
        OrvLab::LabLog::taker({record->logger, record->level, record->tag, record->text.str()}))
        return;
    if (sim->Self().locks != 0)
        sim->Fail("writes to the log and holds a lock: " + record->text.str());
    sim->Trace("    log: " + record->text.str());
    if (OrvLab::LabLog::onRecord)
        OrvLab::LabLog::onRecord(record->text.str());
    sim->Step("log");
    if (OrvLab::LabLog::longestStall != 0 && sim->OneInSchedule(6))
        sim->Stall(
            static_cast<OrvLab::Time>(sim->AnyNumber() % static_cast<std::uint64_t>(OrvLab::LabLog::longestStall)));
}

LogObject& LogObject::operator<<(const char* text) {
    const OrvLab::Unwatched unwatched;
    record->text << text;
    return *this;
}

LogObject& LogObject::operator<<(const std::string& text) {
    const OrvLab::Unwatched unwatched;
    record->text << text;
    return *this;
}

std::ostream* LogObject::Stream() noexcept {
    const OrvLab::Unwatched unwatched;
    return &record->text;
}

Logger::Logger(const std::string& name, int /*level*/) : source(new Source{name}) {}
Logger::~Logger() = default;
Logger::Logger(Logger&&) noexcept = default;
Logger& Logger::operator=(Logger&&) noexcept = default;

LogObject Logger::Trace(const char* tag) {
    return Opened(source->name, "trace", tag);
}

LogObject Logger::Debug(const char* tag) {
    return Opened(source->name, "debug", tag);
}

LogObject Logger::Info(const char* tag) {
    return Opened(source->name, "info", tag);
}

LogObject Logger::Warning(const char* tag) {
    return Opened(source->name, "warning", tag);
}

LogObject Logger::Error(const char* tag) {
    return Opened(source->name, "error", tag);
}

} // namespace CommonUtils
