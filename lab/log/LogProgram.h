// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "log/LogOutputs.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include "CommonUtils/Logger.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

namespace OrvLab {

/// A list of levels as settings and environment have them, in numbers.
struct LevelList {
    std::optional<int> base;
    std::map<std::string, int> own;

    std::string Text() const;
    /// The same as administrators write it: in numbers, other names and letters, with blanks, some items twice.
    std::string Written(Random& random) const;
    /// With what `above` names in its place.
    LevelList Below(const LevelList& above) const;
    int Of(const std::string& source) const;
};

/// Threads that log, make loggers, read the levels anew and replace the settings' file, at random, in a process that
/// has not used any of it before. At the end each level is in force, and each record is there once.
class LogProgram {
public:
    LogProgram(Simulation& simulation, std::uint64_t seed);
    LogProgram(const LogProgram&) = delete;
    LogProgram& operator=(const LogProgram&) = delete;

    void Run();

private:
    /// A state of the settings' file.
    struct Version {
        LevelList levels;
        std::string fault;                // none: it is valid
        std::vector<std::string> reports; // of the fault, as they begin
        bool IsValid() const { return fault.empty(); }
    };
    /// Levels that may be in force: a number of versions, of which one is.
    using Possible = std::set<std::size_t>;
    /// A call that reads the levels anew, and what it may have read so far.
    struct Reload {
        Possible read;
        bool isAlone = true;
    };
    /// A call that logs, and the levels that may have been in force meanwhile.
    struct Call {
        Possible levels;
    };

    void WorkTogether();
    void ApplicationThread(int number);
    void Act(int thread);
    void LogBy(CommonUtils::Logger& logger, const std::string& source, int own, int thread);
    void LogByWrapper(int thread);
    LogRecordAsked AskWrapper(int thread, const std::string& source, int level, bool isShort);
    void CallWrapper(const LogRecordAsked& asked, const std::string& source, int level);
    ForeignText AnyText(int thread, int number, bool isShort, bool withNul);
    ForeignText AnyTag();
    bool TellLosses();
    void CheckOtherContracts();
    void MakeLogger(int thread);
    void ReplaceSettings();
    void Fork();
    void ReadAnew();
    void MaySayWhatWasRead();
    void AllowNews(const Reload& reload, const Possible& before, bool done, const std::string& from);
    void ExpectNews(const Reload& reload, const Possible& before, bool done);
    std::string StayText(std::size_t version) const;
    std::string InForceText(std::size_t version) const;
    void MayBeRead(Reload& reload, std::size_t version);
    void MayBeInForce(std::size_t version);
    void CheckEachLevel();
    void Use();
    Call& Begin();
    void End(Call& call, LogRecordAsked asked, int own, const std::string& source);
    bool IsWanted(std::size_t version, const std::string& source, int own, int level) const;
    LevelList AnyLevels();
    std::string AnySource();
    std::string SettingsText(const Version& version, bool other);

    Simulation& sim;
    Random random;
    LogOutputs outputs;
    LevelList environment;
    std::vector<Version> versions;
    Possible possible{0};
    std::vector<Reload*> reloads;
    std::vector<Call*> calls;
    struct Shared {
        std::string source;
        int own;
        std::unique_ptr<CommonUtils::Logger> logger;
    };
    std::vector<Shared> loggers;
    bool isUsed = false;  // the settings of the start are being read, or have been
    bool areRead = false; // they have been
};

} // namespace OrvLab
