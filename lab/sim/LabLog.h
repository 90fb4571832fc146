// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Simulation.h"

#include <functional>
#include <string>

namespace OrvLab {

/// The log of a simulated program.
struct LabLog {
    struct Record {
        std::string logger;
        const char* level;
        std::string tag; // empty: none
        std::string text;
    };
    /// Asked first. Whoever takes a record watches over it: it may be written with a lock held, and takes no time.
    static std::function<bool(const Record& record)> taker;

    /// What a record may take, now and then, at most. 0: none takes any time.
    static Time longestStall;
    /// Told of each record.
    static std::function<void(const std::string& text)> onRecord;
};

} // namespace OrvLab
