// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "torture/Failures.h"
#include "torture/OpenDescriptors.h"
#include "torture/Programs.h"

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <string>

namespace OrvLab {

/// One call of a program that fails.
struct Point {
    const ProgramKind* program;
    Call call;
    long number;               ///< counted from 1; 0: nothing fails
    bool later;                ///< all that follow fail, too
    Holdings most{-1, -1, -1}; ///< what may be there at the end; negative: any number

    std::string Text() const;
};

/// A process of its own in which a program meets a point.
class Attempt {
public:
    explicit Attempt(const Point& which);
    ~Attempt();
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;

    /// Whether the process has ended; one that hangs is ended.
    bool HasEnded();
    void Wait();
    /// What was wrong; empty for nothing.
    const std::string& Verdict() const { return verdict; }
    /// What was wrong may come of a machine that is busy with other things.
    bool IsDoubtful() const { return doubtful; }
    bool HasFailed() const { return told->failed != 0; }
    long Count(std::size_t call) const { return told->counts[call]; }
    /// What was there at the end.
    Holdings Left() const { return told->left; }
    /// What the process has written, and where the call has failed.
    void PrintCourse() const;

    const Point point;

private:
    /// What the process tells, in memory that it shares.
    struct Told {
        std::atomic<long> counts[CALLS];
        std::atomic<long> failed;
        Holdings left;
        Place place;
    };

    std::string folder; // for what it writes
    Told* told;
    pid_t process;
    const std::chrono::system_clock::time_point begun = std::chrono::system_clock::now();
    std::string verdict;
    bool doubtful = false;
};

/// In this process: the program with what fails at that point.
/// @param counts how often each call was made; null for nobody who wants to know
/// @param left what is there at the end, likewise
long RunPoint(const Point& point, std::atomic<long>* counts = nullptr, Holdings* left = nullptr);

} // namespace OrvLab
