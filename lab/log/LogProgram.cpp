// SPDX-License-Identifier: Apache-2.0
#include "log/LogProgram.h"

#include "log/SystemCalls.h"

#include "OrvPlatform/Settings.h"
#include "quillogger/LogWrapper.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <utility>

namespace OrvLab {

namespace {

constexpr int INFO = 2;
constexpr int OFF = 6;
constexpr int CRITICAL = 5;
constexpr int ANY_ERRNO = 77;
constexpr const char* NAMES[] = {"trace", "debug", "info", "warning", "error", "critical", "off"};
constexpr const char* SOURCES[] = {"First", "Second", "Third", "Fourth"};

CommonUtils::LogObject Opened(CommonUtils::Logger& logger, int level, const char* tag) {
    switch (level) {
    case 0:
        return logger.Trace(tag);
    case 1:
        return logger.Debug(tag);
    case 2:
        return logger.Info(tag);
    case 3:
        return logger.Warning(tag);
    default:
        return logger.Error(tag);
    }
}

} // namespace

std::string LevelList::Text() const {
    std::string text = base ? NAMES[*base] : "";
    for (const auto& [source, level] : own)
        text += (text.empty() ? "" : ",") + source + "=" + NAMES[level];
    return text;
}

LevelList LevelList::Below(const LevelList& above) const {
    LevelList both = *this;
    if (above.base)
        both.base = above.base;
    for (const auto& [source, level] : above.own)
        both.own[source] = level;
    return both;
}

int LevelList::Of(const std::string& source) const {
    const auto found = own.find(source);
    return found != own.end() ? found->second : base.value_or(INFO);
}

LogProgram::LogProgram(Simulation& simulation, std::uint64_t seed)
    : sim(simulation), random(seed * 7 + 17), outputs(simulation, random.OneIn(3), random.OneIn(2)) {
    if (random.OneIn(3))
        environment = AnyLevels();
    setenv("ORV_LOG_LEVEL", environment.Text().c_str(), 1);
    setenv("ORV_GATEWAY_CONFIG", outputs.SettingsFile().c_str(), 1);
    versions.push_back({AnyLevels(), true});
    std::ofstream(outputs.SettingsFile()) << SettingsText(versions.back(), outputs);
    sim.SetEndListener(EndThreadsValues);
}

std::string LogProgram::SettingsText(const Version& version, const LogOutputs& outputs) {
    const std::string levels = version.levels.Text();
    return outputs.Settings() + (levels.empty() ? "" : "level = " + levels + "\n") +
           (version.isValid ? "" : "level = nonsense\n");
}

LevelList LogProgram::AnyLevels() {
    LevelList levels;
    if (random.OneIn(2))
        levels.base = random.Between(0, OFF);
    for (const char* source : SOURCES)
        if (random.OneIn(4))
            levels.own[source] = random.Between(0, OFF);
    return levels;
}

std::string LogProgram::AnySource() {
    return SOURCES[random.Below(std::size(SOURCES))];
}

void LogProgram::Run() {
    if (random.OneIn(2)) {
        Use();
        for (const char* source : SOURCES) {
            const int own = random.OneIn(2) ? 0 : random.Between(0, OFF);
            loggers.push_back({source, own, Watch([&] { return std::make_unique<CommonUtils::Logger>(source, own); })});
            areRead = true;
        }
    }
    // A process costs more than what it does: so it does much.
    for (int count = random.Between(1, 8); count > 0; --count)
        WorkTogether();
    const int before = outputs.OpenDescriptors();
    for (int count = random.Between(1, 10); count > 0; --count)
        Act(0);
    CheckEachLevel();
    if (outputs.OpenDescriptors() != before)
        sim.Fail("a descriptor is left");
    loggers.clear();
    outputs.Check(!outputs.IsPipe() || TellLosses());
    EndThreadsValues();
}

/// Up to four threads, and what is in force when they have ended.
void LogProgram::WorkTogether() {
    const int threads = random.Between(1, 4);
    std::vector<Simulation::Thread*> all;
    for (int number = 1; number <= threads; ++number)
        all.push_back(
            &sim.Start("application " + std::to_string(number), [this, number] { ApplicationThread(number); }));
    for (Simulation::Thread* thread : all)
        sim.Join(*thread);
    CheckEachLevel();
}

void LogProgram::ApplicationThread(int number) {
    for (int count = random.Between(2, 15); count > 0; --count) {
        if (random.OneIn(4))
            sim.Sleep(random.Between(1, 50) * MILLISECOND);
        Act(number);
    }
}

void LogProgram::Act(int thread) {
    if (outputs.IsPipe() && random.OneIn(3))
        outputs.Drain();
    switch (random.Weighted({8, 3, 2, 3, 3})) {
    case 0: {
        if (loggers.empty())
            return MakeLogger(thread);
        Shared& shared = loggers[random.Below(static_cast<unsigned>(loggers.size()))];
        return LogBy(*shared.logger, shared.source, shared.own, thread);
    }
    case 1:
        return LogByWrapper(thread);
    case 2:
        return MakeLogger(thread);
    case 3:
        return ReadAnew();
    default:
        return ReplaceSettings();
    }
}

bool LogProgram::IsWanted(std::size_t version, const std::string& source, int own, int level) const {
    return level >= std::max(own, versions[version].levels.Below(environment).Of(source));
}

/// The first use of settings or log reads what is in force from then on.
void LogProgram::Use() {
    if (!std::exchange(isUsed, true))
        possible = {versions.size() - 1};
}

LogProgram::Call& LogProgram::Begin() {
    Use();
    calls.push_back(new Call{possible});
    return *calls.back();
}

void LogProgram::End(Call& call, LogRecordAsked asked, int own, const std::string& source) {
    areRead = true;
    const auto wants = [&](std::size_t version) { return IsWanted(version, source, own, asked.level); };
    LogRecordAsked& record = outputs.Records(asked.thread)[static_cast<std::size_t>(asked.number)];
    record.mustBeThere = std::all_of(call.levels.begin(), call.levels.end(), wants);
    record.mayBeThere = std::any_of(call.levels.begin(), call.levels.end(), wants);
    calls.erase(std::find(calls.begin(), calls.end(), &call));
    delete &call;
    if (errno != ANY_ERRNO)
        sim.Fail("logging changes errno");
}

void LogProgram::LogBy(CommonUtils::Logger& logger, const std::string& source, int own, int thread) {
    const int level = random.Between(0, 4);
    const std::size_t padding = random.OneIn(6) ? random.Below(outputs.IsPipe() ? 3000 : 5000) : random.Below(40);
    const bool hasTag = random.OneIn(2);
    const LogRecordAsked asked =
        outputs.Add({thread, outputs.NextNumber(thread), level, source, padding, false, false, false});
    Call& call = Begin();
    errno = ANY_ERRNO;
    Watch([&] { Opened(logger, level, hasTag ? "tag" : "") << asked.Text(); });
    End(call, asked, own, source);
}

void LogProgram::LogByWrapper(int thread, int least) {
    const std::string source = AnySource();
    const std::string file = "libs/of/" + source + ".cpp";
    const int level = random.Between(least, CRITICAL);
    const bool flush = random.OneIn(3);
    const LogRecordAsked asked =
        outputs.Add({thread, outputs.NextNumber(thread), level, source + ":7", random.Below(800), false, false, false});
    Call& call = Begin();
    errno = ANY_ERRNO;
    Watch([&] { quillogger::LogWrapper::Log(level, flush, file.c_str(), 7, "tag", "%s", asked.Text().c_str()); });
    End(call, asked, 0, source);
}

void LogProgram::MakeLogger(int thread) {
    const std::string source = AnySource();
    const int own = random.OneIn(2) ? 0 : random.Between(0, OFF);
    Use();
    auto logger = Watch([&] { return std::make_unique<CommonUtils::Logger>(source, own); });
    areRead = true;
    for (int count = random.Between(1, 3); count > 0; --count)
        LogBy(*logger, source, own, thread);
    Watch([&] { logger.reset(); });
}

/// As an editor does: what is read is the one or the other.
void LogProgram::ReplaceSettings() {
    const Version version{AnyLevels(), !areRead || !random.OneIn(6)};
    const std::string fresh = outputs.SettingsFile() + "." + std::to_string(sim.Self().number);
    std::ofstream(fresh) << SettingsText(version, outputs);
    std::rename(fresh.c_str(), outputs.SettingsFile().c_str());
    versions.push_back(version);
    const std::size_t number = versions.size() - 1;
    sim.Trace("    version " + std::to_string(number) + ": " + version.levels.Text() +
              (version.isValid ? "" : " (invalid)"));
    for (Reload* reload : reloads)
        MayBeRead(*reload, number);
    if (isUsed && !areRead)
        MayBeInForce(number);
}

/// It is in force as soon as it is read.
void LogProgram::MayBeRead(Reload& reload, std::size_t version) {
    reload.read.insert(version);
    if (versions[version].isValid)
        MayBeInForce(version);
}

void LogProgram::MayBeInForce(std::size_t version) {
    possible.insert(version);
    for (Call* call : calls)
        call->levels.insert(version);
}

void LogProgram::ReadAnew() {
    Use();
    Reload reload;
    reload.isAlone = reloads.empty();
    for (Reload* other : reloads)
        other->isAlone = false;
    reloads.push_back(&reload);
    const Possible before = possible;
    MayBeRead(reload, versions.size() - 1);
    const bool done = Watch([] { return OrvPlatform::ReloadLogLevels(); });
    areRead = true;
    reloads.erase(std::find(reloads.begin(), reloads.end(), &reload));
    sim.Trace(std::string("    levels are read anew: ") + (done ? "yes" : "no"));
    const auto isValid = [&](std::size_t version) { return versions[version].isValid; };
    if (done && std::none_of(reload.read.begin(), reload.read.end(), isValid))
        sim.Fail("levels are read anew from settings that are not valid");
    if (!done && std::all_of(reload.read.begin(), reload.read.end(), isValid))
        sim.Fail("levels are not read anew, though the settings are valid");
    if (!reload.isAlone)
        return;
    if (!done) {
        possible = before;
        return;
    }
    possible.clear();
    std::copy_if(reload.read.begin(), reload.read.end(), std::inserter(possible, possible.end()), isValid);
}

/// Nobody else does anything. What is in force then is what the settings say, for loggers new and old.
void LogProgram::CheckEachLevel() {
    while (!versions.back().isValid)
        ReplaceSettings();
    ReadAnew();
    for (Shared& shared : loggers)
        for (int count = 0; count < 3; ++count)
            LogBy(*shared.logger, shared.source, shared.own, 0);
    for (int count = 0; count < 4; ++count)
        LogByWrapper(0);
}

/// With the next records that there is room for, if the levels let any through.
bool LogProgram::TellLosses() {
    for (int count = 0; count < 4; ++count) {
        outputs.Drain();
        LogByWrapper(0, CRITICAL);
    }
    return std::all_of(std::begin(SOURCES), std::end(SOURCES),
                       [&](const char* source) { return IsWanted(versions.size() - 1, source, 0, CRITICAL); });
}

} // namespace OrvLab
