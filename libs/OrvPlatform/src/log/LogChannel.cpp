// SPDX-License-Identifier: Apache-2.0
#include "log/LogChannel.h"

#include "OrvPlatform/Settings.h"
#include "base/OncePerProcess.h"
#include "config/GatewayConfig.h"
#include "log/LogEscape.h"
#include "log/LogLevelsInForce.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <pthread.h>
#include <spdlog/sinks/sink.h>

namespace OrvPlatform {

namespace {

constexpr int debugLevel = 1;
constexpr int infoLevel = 2;
constexpr int warningLevel = 3;
constexpr int errorLevel = 4;

/// A cancelled thread would otherwise unwind out of a noexcept function and end the program.
class CancellationHeld {
public:
    CancellationHeld() noexcept { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &before); }
    ~CancellationHeld() { pthread_setcancelstate(before, nullptr); }
    CancellationHeld(const CancellationHeld&) = delete;
    CancellationHeld& operator=(const CancellationHeld&) = delete;

private:
    int before = 0;
};

class ErrnoKept {
public:
    ErrnoKept() noexcept = default;
    ~ErrnoKept() { errno = before; }
    ErrnoKept(const ErrnoKept&) = delete;
    ErrnoKept& operator=(const ErrnoKept&) = delete;

private:
    const int before = errno;
};

std::shared_ptr<spdlog::sinks::sink> ConfiguredSink(const GatewayConfig::Log& settings) {
    switch (settings.sink) {
    case LogSink::STDERR:
        return MakeStderrSink();
    case LogSink::SYSLOG:
        return MakeSyslogSink("/dev/log", Escaped(program_invocation_short_name));
    case LogSink::FILE:
        return MakeFileSink(settings.file, settings.fileMaxBytes, settings.fileCount);
    }
    return MakeStderrSink();
}

constexpr const char* source = "GatewayConfig";

/// On standard error as well: whoever wrote the settings may look there only.
void TellProblems(LogChannel& log, const std::vector<std::string>& problems) {
    const bool logShowsErrors = LogLevelsInForce().Of(source) <= errorLevel;
    for (const std::string& problem : problems) {
        if (logShowsErrors)
            log.Write({errorLevel, source, {}, problem});
        if (!logShowsErrors || LoadedGatewayConfig().config.log.sink != LogSink::STDERR)
            WriteToStderr(Escaped(problem));
    }
}

void ReportSettings(LogChannel& log) {
    const LoadedConfig& loaded = LoadedGatewayConfig();
    const int threshold = LogLevelsInForce().Of(source);
    TellProblems(log, loaded.problems);
    const auto tell = [&](int level, const std::vector<std::string>& texts) {
        for (const std::string& text : texts)
            if (threshold <= level)
                log.Write({level, source, {}, text});
    };
    tell(warningLevel, loaded.warnings);
    tell(infoLevel, loaded.notices);
    tell(debugLevel, loaded.notes);
}

OncePerProcess<LogChannel> processLog;

LogChannel* MakeProcessLog() {
    auto* log = new LogChannel(ConfiguredSink(LoadedGatewayConfig().config.log));
    ReportSettings(*log);
    return log;
}

void BeforeFork() {
    processLog.BeforeFork();
    BeforeForkOfGatewayConfig();
    if (LogChannel* log = processLog.IfMade())
        log->BeforeFork();
}

void AfterFork() {
    if (LogChannel* log = processLog.IfMade())
        log->AfterFork();
    AfterForkOfGatewayConfig();
    processLog.AfterFork();
}

// At load time, so that no thread can be making the log already.
[[maybe_unused]] const int forkHandlers = pthread_atfork(BeforeFork, AfterFork, AfterFork);

} // namespace

LogChannel::LogChannel(std::shared_ptr<spdlog::sinks::sink> destination) : sink(std::move(destination)) {}

void LogChannel::Write(const LogRecord& record) noexcept {
    const ErrnoKept errnoKept;
    const CancellationHeld cancellationHeld;
    const std::lock_guard<std::mutex> guard(mutex);
    try {
        Compose(record);
        Emit(record.level, record.logger, line);
        if (record.flush)
            sink->flush();
    } catch (const std::exception& failure) {
        NoteLoss(failure.what());
        return;
    }
    try {
        TellLoss();
    } catch (const std::exception&) {
        // Told with a later record.
    }
}

void LogChannel::Compose(const LogRecord& record) {
    line.clear();
    std::size_t taken = AppendEscaped(record.tag, maxRecordBytes, line);
    bool whole = taken == record.tag.size();
    if (!record.tag.empty() && !record.text.empty() && record.text.front() != '(')
        line += ": ";
    const std::size_t room = maxRecordBytes - std::min(maxRecordBytes, line.size());
    taken = AppendEscaped(record.text, room, line);
    whole = whole && taken == record.textBytes;
    if (!whole)
        line += " [cut, " + std::to_string(record.tag.size() + record.textBytes) + " bytes in all]";
}

void LogChannel::Emit(int level, std::string_view logger, std::string_view text) {
    sink->log({spdlog::string_view_t(logger.data(), logger.size()), static_cast<spdlog::level::level_enum>(level),
               spdlog::string_view_t(text.data(), text.size())});
}

void LogChannel::NoteLoss(const char* reason) noexcept {
    try {
        if (lost++ == 0) {
            lossReason = Escaped(reason);
            WriteToStderr("The log loses records: " + lossReason);
        }
    } catch (const std::exception&) {
        // Without memory for the message the count must do.
    }
}

void LogChannel::TellLoss() {
    if (lost == 0)
        return;
    const std::string count = lost == 1 ? "1 record was" : std::to_string(lost) + " records were";
    Emit(warningLevel, "Log", count + " lost before the previous one (" + lossReason + ")");
    lost = 0;
}

LogChannel& ProcessLog() {
    return processLog.Get(MakeProcessLog);
}

bool ReloadLogLevels() noexcept {
    try {
        LogChannel& log = ProcessLog();
        const LogLevels& before = LogLevelsInForce();
        RereadLogLevels reread = LogLevelsReadAnew(before);
        if (!reread.problems.empty()) {
            reread.problems.push_back("The levels of the log stay as they were, " + before.Text() +
                                      ", because of what is wrong with " + reread.file +
                                      ". Mend it (orv-config-check tells when it is right) and read it anew");
            TellProblems(log, reread.problems);
            return false;
        }
        PutLogLevelsInForce(reread.levels);
        const std::string now = reread.levels.Text();
        // Also when it is they that turn this record off.
        if (now != before.Text() && std::min(before.Of(source), reread.levels.Of(source)) <= infoLevel)
            log.Write({infoLevel, source, {}, "The levels of the log are now " + now});
        return true;
    } catch (const std::exception&) {
        return false; // no memory
    }
}

} // namespace OrvPlatform
