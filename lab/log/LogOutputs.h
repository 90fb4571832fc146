// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Simulation.h"

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace OrvLab {

/// A record that was asked for.
struct LogRecordAsked {
    int thread;
    int number;
    int level;
    std::string logger;
    std::size_t padding;
    bool mustBeThere = false;
    bool mayBeThere = false;
    bool seen = false;

    std::string Text() const;
};

/// Where the log goes: a file that is rotated, or standard error as a pipe. Knows what was asked for, and checks that
/// it is there.
class LogOutputs {
public:
    LogOutputs(Simulation& simulation, bool toPipe, bool withLittleRoom);
    ~LogOutputs();
    LogOutputs(const LogOutputs&) = delete;
    LogOutputs& operator=(const LogOutputs&) = delete;

    std::string SettingsFile() const { return folder + "/gateway.ini"; }
    std::string Settings() const;
    bool IsPipe() const { return reading >= 0; }
    /// What waits in the pipe is read.
    void Drain();

    int NextNumber(int thread) { return static_cast<int>(records[thread].size()); }
    LogRecordAsked& Add(LogRecordAsked record);
    std::vector<LogRecordAsked>& Records(int thread) { return records[thread]; }
    /// Everything is there that must be, whole, once and in its thread's order.
    void Check(bool lossesAreTold);
    /// But for one for the log itself, which is opened when there is something to write.
    int OpenDescriptors() const;

private:
    void Remove() const;
    std::string Written() const;
    void CheckLine(const std::string& line);
    struct Line;
    static std::optional<Line> Parsed(const std::string& line);
    void CheckRecord(const Line& parts, const std::string& line);

    Simulation& sim;
    std::string folder;
    std::string piped;
    int reading = -1;
    int formerError = -1;
    std::map<int, std::vector<LogRecordAsked>> records; // by thread
    std::map<int, int> latest;
    std::size_t lost = 0;
};

} // namespace OrvLab
