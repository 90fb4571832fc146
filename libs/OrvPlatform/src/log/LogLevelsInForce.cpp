// SPDX-License-Identifier: Apache-2.0
#include "log/LogLevelsInForce.h"

#include "log/ProcessLog.h"

#include <algorithm>

namespace OrvPlatform {

namespace {

/// Levels that are, or were, in force. Never freed: a thread may be looking into them. Equal ones are kept once.
struct Kept {
    const LogLevels levels;
    const unsigned number; // from 1; 0 stands for the levels of the start
    const Kept* const before;
};

std::atomic<const Kept*> newest{nullptr};
std::atomic<const Kept*> inForce{nullptr}; // null: the levels of the start
std::atomic<unsigned> numberInForce{0};

constexpr unsigned BITS_OF_A_LEVEL = 3;
static_assert(static_cast<int>(LogLevel::OFF) < (1 << BITS_OF_A_LEVEL));

const LogLevels& LevelsOf(const Kept* kept) {
    return kept != nullptr ? kept->levels : LogLevelsAtStart();
}

const Kept* FindOrStore(const LogLevels& levels) {
    const std::string text = levels.Text();
    const Kept* head = newest.load(std::memory_order_acquire);
    for (;;) {
        for (const Kept* kept = head; kept != nullptr; kept = kept->before)
            if (kept->levels.Text() == text)
                return kept;
        const Kept* added = new Kept{levels, head == nullptr ? 1 : head->number + 1, head};
        if (newest.compare_exchange_strong(head, added, std::memory_order_acq_rel))
            return added;
        delete added;
    }
}

} // namespace

const LogLevels& LogLevelsInForce() {
    return LevelsOf(inForce.load(std::memory_order_acquire));
}

void PutLogLevelsInForce(const LogLevels& levels) {
    const Kept* kept = FindOrStore(levels);
    inForce.store(kept, std::memory_order_release);
    numberInForce.store(kept->number, std::memory_order_release);
}

LogThreshold::LogThreshold(std::string_view source, LogLevel ownLevel) : own(ownLevel) {
    LookUp(source);
}

LogLevel LogThreshold::Of(std::string_view source) const {
    const unsigned word = remembered.load(std::memory_order_relaxed);
    if (word >> BITS_OF_A_LEVEL == numberInForce.load(std::memory_order_relaxed))
        return static_cast<LogLevel>(word & ((1U << BITS_OF_A_LEVEL) - 1));
    return LookUp(source);
}

LogLevel LogThreshold::LookUp(std::string_view source) const {
    const Kept* kept = inForce.load(std::memory_order_acquire);
    const LogLevel threshold = std::max(own, LevelsOf(kept).Of(source));
    const unsigned number = kept == nullptr ? 0 : kept->number;
    remembered.store(number << BITS_OF_A_LEVEL | static_cast<unsigned>(threshold), std::memory_order_relaxed);
    return threshold;
}

} // namespace OrvPlatform
