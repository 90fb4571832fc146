// SPDX-License-Identifier: Apache-2.0
#include "ProcessWide.h"

#include "OrvPlatform/Settings.h"
#include "log/LogEscape.h"
#include "log/LogLevelsInForce.h"
#include "log/LogSinks.h"
#include "log/ProcessLog.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <memory>
#include <pthread.h>

namespace OrvPlatform {

namespace {

std::unique_ptr<LogOutput> ConfiguredOutput(const GatewayConfig::Log& configured) {
    switch (configured.sink) {
    case LogSink::STDERR:
        return MakeStderrSink();
    case LogSink::SYSLOG:
        return MakeSyslogSink("/dev/log", Escaped(program_invocation_short_name));
    case LogSink::FILE:
        return MakeFileSink(configured.file, configured.fileMaxBytes, configured.fileCount);
    }
    return MakeStderrSink();
}

constexpr const char* SOURCE = "GatewayConfig";

/// On standard error as well: whoever wrote the settings may look there only.
void LogProblems(const std::vector<std::string>& problems, const LogLevels& levels, LogSink sink, LogChannel& log) {
    const bool logShowsErrors = levels.Of(SOURCE) <= LogLevel::ERROR;
    for (const std::string& problem : problems) {
        if (logShowsErrors)
            log.Write({LogLevel::ERROR, SOURCE, {}, problem});
        if (!logShowsErrors || sink != LogSink::STDERR)
            WriteToStderr(Escaped(problem));
    }
}

void Report(const LoadedConfig& loaded, LogChannel& log) {
    const GatewayConfig::Log& configured = loaded.config.log;
    LogProblems(loaded.problems, configured.levels, configured.sink, log);
    const LogLevel threshold = configured.levels.Of(SOURCE);
    const auto tell = [&](LogLevel level, const std::vector<std::string>& texts) {
        for (const std::string& text : texts)
            if (threshold <= level)
                log.Write({level, SOURCE, {}, text});
    };
    tell(LogLevel::WARNING, loaded.warnings);
    tell(LogLevel::INFO, loaded.notices);
    tell(LogLevel::DEBUG, loaded.notes);
}

ProcessWide process;

// At load time, so that no thread can be making anything already, and before the other rooms' handlers: who holds a
// lock of theirs may log. Before a fork the handlers run in the opposite order.
__attribute__((constructor(101))) void SetForkHandlers() {
    pthread_atfork([] { process.BeforeFork(); }, [] { process.AfterFork(); }, [] { process.AfterFork(); });
}

} // namespace

const LoadedConfig& ProcessWide::Settings() {
    return settings.Get([] { return new LoadedConfig(LoadGatewayConfig()); });
}

LogChannel& ProcessWide::Log() {
    return log.Get([this] { return MakeLog(); });
}

LogChannel* ProcessWide::MakeLog() {
    const LoadedConfig& loaded = Settings();
    auto made = std::make_unique<LogChannel>(ConfiguredOutput(loaded.config.log));
    Report(loaded, *made);
    return made.release();
}

void ProcessWide::BeforeFork() {
    log.BeforeFork();
    settings.BeforeFork();
    if (LogChannel* made = log.IfMade())
        made->BeforeFork();
}

void ProcessWide::AfterFork() {
    if (LogChannel* made = log.IfMade())
        made->AfterFork();
    settings.AfterFork();
    log.AfterFork();
}

LogChannel& ProcessLog() {
    return process.Log();
}

const LogLevels& LogLevelsAtStart() {
    return process.Settings().config.log.levels;
}

const GatewayConfig& Config() {
    process.Log(); // reports what is wrong with the settings
    return process.Settings().config;
}

bool ReloadLogLevels() noexcept {
    try {
        LogChannel& log = process.Log();
        const LogLevels& before = LogLevelsInForce();
        GatewayConfig running = process.Settings().config;
        running.log.levels = before;
        RereadLogLevels reread = LogLevelsReadAnew(running);
        if (!reread.problems.empty()) {
            reread.problems.push_back("The levels of the log stay as they were, " + before.Text() +
                                      ", because of what is wrong with " + reread.file +
                                      ". Mend it (orv-config-check tells when it is right) and read it anew");
            LogProblems(reread.problems, before, running.log.sink, log);
            return false;
        }
        PutLogLevelsInForce(reread.levels);
        const std::string now = reread.levels.Text();
        // Also when it is they that turn this record off.
        if (now != before.Text() && std::min(before.Of(SOURCE), reread.levels.Of(SOURCE)) <= LogLevel::INFO)
            log.Write({LogLevel::INFO, SOURCE, {}, "The levels of the log are now " + now});
        return true;
    } catch (const std::exception&) {
        return false; // no memory
    }
}

} // namespace OrvPlatform
