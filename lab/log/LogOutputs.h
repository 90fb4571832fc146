// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "log/AskedRecord.h"
#include "log/SettingsNews.h"
#include "sim/Random.h"
#include "sim/Simulation.h"

#include <cstddef>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace OrvLab {

/// What a log is written to, and how well that does.
struct LogPlace {
    enum class Kind { FILE, PIPE, SOCKET, SYSLOG };

    static LogPlace Any(Random& random);

    Kind kind = Kind::FILE;
    bool hasLittleRoom = false;
    bool hasTrouble = false; ///< a file's disk is full at times, a syslog daemon is started anew
    bool isJournal = false;  ///< standard error leads to the journal
    bool lacksFolder = false;
    int files = 100;
};

/// Where the log goes: a file that is rotated, standard error as a pipe or a socket, or the syslog daemon. Knows what
/// was asked for, and checks that it is there.
class LogOutputs {
public:
    LogOutputs(Simulation& simulation, const LogPlace& where);
    ~LogOutputs();
    LogOutputs(const LogOutputs&) = delete;
    LogOutputs& operator=(const LogOutputs&) = delete;

    const std::string& Folder() const { return folder; }
    std::string SettingsFile() const { return folder + "/gateway.ini"; }
    /// @param other for a file that is read anew: a log elsewhere, which nobody may begin
    std::string Settings(bool other = false) const;
    /// Somebody reads it, sooner or later.
    bool IsRead() const { return place.kind != LogPlace::Kind::FILE; }
    bool IsFile() const { return place.kind == LogPlace::Kind::FILE; }
    bool HasTrouble() const { return place.hasTrouble; }
    /// What has no room at once may be cut there, and something else may come to stand in it.
    bool HasLittleRoom() const { return place.hasLittleRoom && place.kind == LogPlace::Kind::PIPE; }
    /// What waits is read.
    void Drain();
    /// Something goes wrong with it, or goes well again.
    void Trouble(Random& random);
    void Heal();

    int NextNumber(int thread) { return static_cast<int>(records[thread].size()); }
    LogRecordAsked& Add(LogRecordAsked record);
    std::vector<LogRecordAsked>& Records(int thread) { return records[thread]; }
    /// The log has to say so of its settings; told of a file that loses nothing.
    void Expect(const std::string& text) { ++expected[text]; }
    /// It may say so of its settings, and nothing else.
    void MayTell(SettingsNews::Choice choice) { news.May(std::move(choice)); }
    void ReadSettingsAnew() { ++readAnew; }
    /// The earliest that a record may have.
    std::string TimeOfBeginning() const;
    static std::string TimeOfNow();
    /// Whether a line may begin so that is written now.
    bool IsBeginning(std::string line) const;
    /// Everything is there that must be, whole, once and in its thread's order.
    void Check(bool lossesAreTold);
    /// But for one for the log itself, which is opened when there is something to write.
    int OpenDescriptors() const;

private:
    struct Line;

    void MakeReader();
    void Listen();
    void Remove() const;
    std::string LogFile(int number) const;
    std::string Written();
    void CheckFiles();
    void CheckLine(const std::string& line);
    bool TakePriority(std::string& line, std::string& priority) const;
    std::optional<Line> Parsed(std::string line);
    void CheckTime(const std::string& time);
    void CheckRecord(const Line& parts, const std::string& line);
    bool IsCut(const std::string& line);
    bool IsBeginningOfRecord(const std::string& line) const;
    bool IsBeginningOfNews(const std::string& time, const std::string& line) const;
    bool IsBeginningOfLoss(const std::string& line) const;
    bool IsLoss(const std::string& text, bool isWhole) const;
    [[noreturn]] void FailWithNews(const std::string& line);
    void CheckMissing(bool lossesAreTold);
    bool MayBeDropped(int thread, int number) const;

    Simulation& sim;
    const LogPlace place;
    std::string folder;
    std::string read;
    int reading = -1;
    int formerError = -1;
    std::map<int, std::vector<LogRecordAsked>> records; // by thread
    std::map<int, int> latest;
    std::map<int, int> earliest;
    std::map<std::string, int> expected;
    std::map<std::string, int> found;
    SettingsNews news;
    std::vector<std::pair<std::string, std::string>> newsWithoutTime; // level and text
    std::set<std::pair<int, int>> cutRecords;
    std::string lastTime;
    long long begun;
    std::size_t lost = 0;
    std::size_t complaints = 0;
    std::size_t reports = 0;
    std::size_t cut = 0;
    std::size_t troubles = 0;
    std::size_t readAnew = 0;
    bool isDropped = false; // the oldest files may be gone
    bool isUnfinished = false;
};

} // namespace OrvLab
