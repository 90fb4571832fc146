// SPDX-License-Identifier: Apache-2.0
#include "CommonUtils/Logger.h"

#include "log/LogEscape.h"
#include "log/LogLevelsInForce.h"
#include "log/ProcessLog.h"

#include <algorithm>
#include <array>
#include <locale>
#include <memory>
#include <new>
#include <pthread.h>
#include <streambuf>
#include <utility>

namespace CommonUtils {

using OrvPlatform::LogLevel;

namespace {

/// Keeps the first bytes of what is streamed and counts the rest.
class BoundedText final : public std::streambuf {
public:
    const std::string& Kept() const { return kept; }
    std::size_t Bytes() const { return bytes; }

    void Clear() {
        constexpr std::size_t worthKeeping = 1024;
        if (kept.capacity() > worthKeeping)
            std::string().swap(kept);
        kept.clear();
        bytes = 0;
    }

protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        const auto wanted = static_cast<std::size_t>(count);
        kept.append(text, std::min(wanted, OrvPlatform::MAX_RECORD_BYTES - kept.size()));
        bytes += wanted;
        return count;
    }

    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof()))
            return traits_type::not_eof(c);
        const char byte = traits_type::to_char_type(c);
        xsputn(&byte, 1);
        return c;
    }

private:
    std::string kept;
    std::size_t bytes = 0;
};

} // namespace

struct LogObject::Record {
    Record() : stream(&text), pristine(nullptr) {
        pristine.imbue(std::locale::classic());
        stream.imbue(std::locale::classic());
    }

    void Open(const std::string& source, LogLevel recordLevel, const char* recordTag) {
        logger = source;
        level = recordLevel;
        tag = recordTag == nullptr ? std::string_view() : std::string_view(recordTag);
    }

    void Emit() const noexcept {
        OrvPlatform::ProcessLog().Write({level, logger, tag, text.Kept(), text.Bytes(), false});
    }

    /// Whatever the last record's values did to the stream, the next one finds default flags.
    void Reset() {
        text.Clear();
        stream.copyfmt(pristine);
        stream.clear();
    }

    std::string logger;
    LogLevel level = LogLevel::TRACE;
    std::string_view tag;
    BoundedText text;
    std::ostream stream;
    std::ios pristine;
};

namespace {

using Record = LogObject::Record;

/// Records that one thread has used and will use again: making a stream costs more than a short record does.
/// Two, because a value being streamed may log itself.
class SpareRecords {
public:
    std::unique_ptr<Record> Take() noexcept {
        for (auto& spare : spares)
            if (spare)
                return std::move(spare);
        return nullptr;
    }

    void Keep(std::unique_ptr<Record> record) {
        for (auto& spare : spares) {
            if (!spare) {
                record->Reset();
                spare = std::move(record);
                return;
            }
        }
    }

private:
    std::array<std::unique_ptr<Record>, 2> spares;
};

// Neither has a destructor: where there is no memory to register one, the process would be ended. A thread that ends
// gives its spares back by the key below, after the destructors of its other objects.
thread_local SpareRecords* threadsSpares = nullptr;
thread_local bool sparesAreGone = false;

class SparesKey {
public:
    SparesKey() noexcept : isMade(pthread_key_create(&key, Release) == 0) {}

    bool Keep(const SpareRecords* spares) const noexcept { return isMade && pthread_setspecific(key, spares) == 0; }

private:
    static void Release(void* spares) noexcept {
        threadsSpares = nullptr;
        sparesAreGone = true;
        delete static_cast<SpareRecords*>(spares);
    }

    pthread_key_t key{};
    const bool isMade;
};

// Made at load time: a static local may be half made when another thread forks, and the child would wait for it for
// ever. A record before that has no spares.
const SparesKey SPARES_KEY;

/// Null where there is no memory for them, too.
SpareRecords* ThisThreadsSpares() noexcept {
    if (threadsSpares != nullptr || sparesAreGone)
        return threadsSpares;
    auto spares = std::unique_ptr<SpareRecords>(new (std::nothrow) SpareRecords);
    if (spares && SPARES_KEY.Keep(spares.get()))
        threadsSpares = spares.release();
    return threadsSpares;
}

std::unique_ptr<Record> OpenRecord(const std::string& logger, LogLevel level, const char* tag) {
    std::unique_ptr<Record> record;
    if (SpareRecords* spares = ThisThreadsSpares())
        record = spares->Take();
    if (!record)
        record = std::make_unique<Record>();
    record->Open(logger, level, tag);
    return record;
}

void FinishRecord(std::unique_ptr<Record> record) noexcept {
    if (!record)
        return;
    record->Emit();
    if (SpareRecords* spares = ThisThreadsSpares())
        spares->Keep(std::move(record));
}

} // namespace

LogObject::LogObject(std::unique_ptr<Record> content) noexcept : record(std::move(content)) {}

LogObject::LogObject(LogObject&& other) noexcept = default;

LogObject& LogObject::operator=(LogObject&& other) noexcept {
    if (this != &other) {
        FinishRecord(std::move(record));
        record = std::move(other.record);
    }
    return *this;
}

LogObject::~LogObject() {
    FinishRecord(std::move(record));
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
    return record ? &record->stream : nullptr;
}

struct Logger::Source {
    Source(const std::string& givenName, int level)
        : name(givenName),
          shownName(OrvPlatform::Escaped(givenName)),
          threshold(givenName, OrvPlatform::LogLevelFrom(level)) {}

    LogObject Open(LogLevel level, const char* tag) const {
        return LogObject(level < threshold.Of(name) ? nullptr : OpenRecord(shownName, level, tag));
    }

    const std::string name;
    const std::string shownName;
    const OrvPlatform::LogThreshold threshold;
};

Logger::Logger(const std::string& name, int level) : source(std::make_unique<Source>(name, level)) {}

Logger::~Logger() = default;
Logger::Logger(Logger&& other) noexcept = default;
Logger& Logger::operator=(Logger&& other) noexcept = default;

LogObject Logger::Trace(const char* tag) {
    return source->Open(LogLevel::TRACE, tag);
}

LogObject Logger::Debug(const char* tag) {
    return source->Open(LogLevel::DEBUG, tag);
}

LogObject Logger::Info(const char* tag) {
    return source->Open(LogLevel::INFO, tag);
}

LogObject Logger::Warning(const char* tag) {
    return source->Open(LogLevel::WARNING, tag);
}

LogObject Logger::Error(const char* tag) {
    return source->Open(LogLevel::ERROR, tag);
}

} // namespace CommonUtils
