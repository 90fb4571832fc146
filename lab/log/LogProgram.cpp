// SPDX-License-Identifier: Apache-2.0
#include "log/LogProgram.h"

#include "log/SettingsProgram.h"
#include "log/SystemCalls.h"

#include "GatewayMainBaseUnits/IpInterfacesMapping.h"
#include "OrvPlatform/Settings.h"
#include "OrvResources/StaticConfigStore.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <utility>

namespace OrvLab {

namespace {

constexpr int INFO = 2;
constexpr int ERROR = 4;
#ifdef ORV_LAB_THREAD_SANITIZER
constexpr bool MAY_FORK = false; // it takes its own threads for those of the child, too
#else
constexpr bool MAY_FORK = true;
#endif
constexpr int OFF = 6;
constexpr int CRITICAL = 5;
constexpr const char* NAMES[] = {"trace", "debug", "info", "warning", "error", "critical", "off"};
constexpr const char* SOURCES[] = {"First", "Second", "Third", "Fourth"};

constexpr const char* SETTINGS = "GatewayConfig"; // which tells of the settings
constexpr const char* STRANGE = "A\tlogger";      // which no list of levels can name
constexpr const char* ENDPOINT = "cloud.example:8443/health";

std::string AnyWord(Random& random, int level) {
    std::string word = NAMES[level];
    switch (random.Below(6)) {
    case 0:
        return std::to_string(level);
    case 1:
        std::transform(word.begin(), word.end(), word.begin(), [](unsigned char c) { return std::toupper(c); });
        return word;
    case 2:
        return word == "warning" ? "warn" : word == "error" ? "ERR" : word;
    default:
        return word;
    }
}

} // namespace

std::string LevelList::Text() const {
    std::string text = base ? NAMES[*base] : "";
    for (const auto& [source, level] : own)
        text += (text.empty() ? "" : ",") + source + "=" + NAMES[level];
    return text;
}

std::string LevelList::Written(Random& random) const {
    std::string text;
    const auto add = [&](const std::string& item) {
        text += (text.empty() ? "" : random.OneIn(5) ? " ,\t" : ",") + item;
    };
    if (base && random.OneIn(6))
        add(AnyWord(random, random.Between(0, OFF)));
    if (base)
        add(AnyWord(random, *base));
    for (const auto& [source, level] : own) {
        if (random.OneIn(6))
            add(source + "=" + AnyWord(random, random.Between(0, OFF)));
        add(source + (random.OneIn(5) ? " = " : "=") + AnyWord(random, level));
    }
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
    : sim(simulation), random(seed * 7 + 17), outputs(simulation, LogPlace::Any(random)) {
    if (random.OneIn(3))
        environment = AnyLevels();
    setenv("TZ", "XYZ5", 1); // the log's time is everywhere the same
    setenv("ORV_LOG_LEVEL", environment.Written(random).c_str(), 1);
    setenv("ORV_GATEWAY_CONFIG", outputs.SettingsFile().c_str(), 1);
    versions.push_back({AnyLevels(), {}, {}});
    std::ofstream(outputs.SettingsFile()) << SettingsText(versions.back(), false);
    MaySayWhatWasRead();
    sim.SetEndListener(EndThreadsValues);
}

/// Each process does so that reads the settings.
void LogProgram::MaySayWhatWasRead() {
    outputs.MayTell({{}, {}, "debug", {"Settings read from " + outputs.SettingsFile()}});
}

/// @param other with other settings, too, which nobody reads while the process runs
std::string LogProgram::SettingsText(const Version& version, bool other) {
    const std::string levels = version.levels.Written(random);
    const std::string others =
        other ? "[interfaces]\nethernet = other\ncellular = others\n"
              : "[interfaces]\nethernet = up7\ncellular = mob_7\n[cloud]\nendpoint = " + std::string(ENDPOINT) + "\n";
    return others + outputs.Settings(other) + (levels.empty() ? "" : "level = " + levels + "\n");
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
    return random.OneIn(12) ? STRANGE : SOURCES[random.Below(std::size(SOURCES))];
}

void LogProgram::Run() {
    SettingsProgram(sim, random, outputs.Folder()).Run();
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
    outputs.Heal();
    const int before = outputs.OpenDescriptors();
    for (int count = random.Between(1, 10); count > 0; --count)
        Act(0);
    outputs.Heal();
    CheckEachLevel();
    if (outputs.OpenDescriptors() != before)
        sim.Fail("a descriptor is left");
    CheckOtherContracts();
    loggers.clear();
    outputs.Check(TellLosses());
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
    if (outputs.IsRead() && random.OneIn(3))
        outputs.Drain();
    if (outputs.HasTrouble() && random.OneIn(8))
        outputs.Trouble(random);
    // It costs much, and finds most while settings and log are being made.
    if (MAY_FORK && random.OneIn(areRead ? 200 : 4))
        return Fork();
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

/// The child finds everything unlocked and whole, whatever the other threads were about.
void LogProgram::Fork() {
    MaySayWhatWasRead();
    sim.RunInForkedChild([] {
        const CommonUtils::Logger logger("First", OFF);
        const CommonUtils::Logger another("Second", OFF);
    });
}

bool LogProgram::IsWanted(std::size_t version, const std::string& source, int own, int level) const {
    return level >= std::max(own, versions[version].levels.Below(environment).Of(source));
}

/// The first use of settings or log reads what is in force from then on.
void LogProgram::Use() {
    if (!std::exchange(isUsed, true))
        possible = {versions.size() - 1};
}

/// As an editor does: what is read is the one or the other.
void LogProgram::ReplaceSettings() {
    static const std::string faults[] = {"level = nonsense\n",
                                         "file_count = 0\n",
                                         "file_max_bytes = 16383\n",
                                         "colour = 1\n",
                                         "[nowhere]\n",
                                         "nonsense\n",
                                         "level = info,First=loud\n",
                                         "sink = stdout\n",
                                         "sink = stderr\n",
                                         "[broker]\nport = 65536\n",
                                         "[broker\n",
                                         std::string("\0\n", 2)};
    const bool isFaulty = areRead && random.OneIn(6);
    Version version{AnyLevels(), isFaulty ? faults[random.Below(std::size(faults))] : std::string(), {}};
    const std::string text = SettingsText(version, areRead && random.OneIn(4));
    version.reports = SettingsNews::Faults(outputs.SettingsFile(), text, version.fault);
    const std::string fresh = outputs.SettingsFile() + "." + std::to_string(sim.Self().number);
    std::ofstream(fresh) << text + version.fault;
    std::rename(fresh.c_str(), outputs.SettingsFile().c_str());
    versions.push_back(version);
    const std::size_t number = versions.size() - 1;
    sim.Trace("    version " + std::to_string(number) + ": " + version.levels.Text() + " " + version.fault);
    for (Reload* reload : reloads)
        MayBeRead(*reload, number);
    if (isUsed && !areRead)
        MayBeInForce(number);
}

/// It is in force as soon as it is read.
void LogProgram::MayBeRead(Reload& reload, std::size_t version) {
    reload.read.insert(version);
    if (versions[version].IsValid())
        MayBeInForce(version);
}

void LogProgram::MayBeInForce(std::size_t version) {
    possible.insert(version);
    for (Call* call : calls)
        call->levels.insert(version);
}

void LogProgram::ReadAnew() {
    Use();
    outputs.ReadSettingsAnew();
    Reload reload;
    reload.isAlone = reloads.empty();
    for (Reload* other : reloads)
        other->isAlone = false;
    reloads.push_back(&reload);
    const Possible before = possible;
    const bool wereRead = areRead;
    Call& call = Begin();
    MayBeRead(reload, versions.size() - 1);
    const std::string from = LogOutputs::TimeOfNow();
    const bool done = Watch([] { return OrvPlatform::ReloadLogLevels(); });
    areRead = true;
    AllowNews(reload, call.levels, done, from);
    calls.erase(std::find(calls.begin(), calls.end(), &call));
    delete &call;
    reloads.erase(std::find(reloads.begin(), reloads.end(), &reload));
    sim.Trace(std::string("    levels are read anew: ") + (done ? "yes" : "no"));
    const auto isValid = [&](std::size_t version) { return versions[version].IsValid(); };
    if (done && std::none_of(reload.read.begin(), reload.read.end(), isValid))
        sim.Fail("levels are read anew from settings that are not valid");
    if (!done && std::all_of(reload.read.begin(), reload.read.end(), isValid))
        sim.Fail("levels are not read anew, though the settings are valid");
    if (!reload.isAlone)
        return;
    ExpectNews(reload, before, done);
    if (!done) {
        // Until something has been read, what replaces the settings meanwhile may be what is read first.
        if (wereRead)
            possible = before;
        return;
    }
    possible.clear();
    std::copy_if(reload.read.begin(), reload.read.end(), std::inserter(possible, possible.end()), isValid);
}

/// As the log tells what is in force: the file's list with the environment's words in it, then what only that one
/// names.
std::string LogProgram::InForceText(std::size_t version) const {
    const LevelList& file = versions[version].levels;
    const LevelList both = file.Below(environment);
    std::string text = NAMES[both.base.value_or(INFO)];
    for (const auto& [source, level] : file.own)
        text += "," + source + "=" + NAMES[both.own.at(source)];
    for (const auto& [source, level] : environment.own)
        if (file.own.count(source) == 0)
            text += "," + source + "=" + NAMES[level];
    return text;
}

std::string LogProgram::StayText(std::size_t version) const {
    return "The levels of the log stay as they were, " + InForceText(version) + ", because of what is wrong with " +
           outputs.SettingsFile() + ". Mend it (orv-config-check tells when it is right) and read it anew";
}

/// What the log may say of levels that were read anew.
/// @param before that may have been in force meanwhile
void LogProgram::AllowNews(const Reload& reload, const Possible& before, bool done, const std::string& from) {
    const std::string to = LogOutputs::TimeOfNow();
    SettingsNews::Choice news{from, to, done ? "info" : "error", {}};
    for (const std::size_t is : reload.read) {
        for (const std::string& report : versions[is].reports)
            if (!done)
                outputs.MayTell({from, to, "error", {report}, false});
        for (const std::size_t was : before)
            if (done && versions[is].IsValid() && InForceText(was) != InForceText(is) &&
                (IsWanted(was, SETTINGS, 0, INFO) || IsWanted(is, SETTINGS, 0, INFO)))
                news.beginnings.push_back("The levels of the log are now " + InForceText(is));
    }
    for (const std::size_t was : before)
        if (!done)
            news.beginnings.push_back(StayText(was));
    outputs.MayTell(news);
}

/// What the log says of levels that were read anew, where it is certain what was in force and what was read.
void LogProgram::ExpectNews(const Reload& reload, const Possible& before, bool done) {
    if (before.size() != 1 || reload.read.size() != 1)
        return;
    const std::string was = InForceText(*before.begin());
    const std::string is = InForceText(*reload.read.begin());
    const bool saysNews =
        IsWanted(*before.begin(), SETTINGS, 0, INFO) || IsWanted(*reload.read.begin(), SETTINGS, 0, INFO);
    if (done && was != is && saysNews)
        outputs.Expect("The levels of the log are now " + is);
    if (!done && IsWanted(*before.begin(), SETTINGS, 0, ERROR))
        outputs.Expect(StayText(*before.begin()));
}

/// Nobody else does anything. What is in force then is what the settings say, for loggers new and old.
void LogProgram::CheckEachLevel() {
    while (!versions.back().IsValid())
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
    outputs.Heal();
    for (int count = 0; count < 4; ++count) {
        outputs.Drain();
        const std::string source = SOURCES[random.Below(std::size(SOURCES))];
        CallWrapper(AskWrapper(0, source, CRITICAL, true), source, CRITICAL);
    }
    return std::all_of(std::begin(SOURCES), std::end(SOURCES),
                       [&](const char* source) { return IsWanted(versions.size() - 1, source, 0, CRITICAL); });
}

/// What was read at the start counts for them as long as the process runs.
void LogProgram::CheckOtherContracts() {
    const auto interfaceOf = [](const char* role) {
        return Watch(
            [role] { return GatewayMainBaseUnits::IpInterfacesMapping::GetInstance().GetInterfaceName(role); });
    };
    const auto store = Watch([] { return OrvResources::CreateStaticConfigStore(); });
    const auto valueOf = [&](int key) { return Watch([&] { return store->GetValue(key); }); };
    if (interfaceOf("Ethernet") != "up7" || interfaceOf("Cellular") != "mob_7" || !interfaceOf("ethernet").empty() ||
        !interfaceOf("").empty())
        sim.Fail("an interface is not the one that the settings have named at the start");
    if (valueOf(0) != ENDPOINT || !valueOf(1).empty() || !valueOf(-1).empty())
        sim.Fail("the cloud's endpoint is not the one that the settings have named at the start");
}

} // namespace OrvLab
