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
// A number only, so that those in force and their number cannot disagree.
std::atomic<unsigned> numberInForce{0};

constexpr unsigned BITS_OF_A_LEVEL = 3;
static_assert(static_cast<int>(LogLevel::OFF) < (1 << BITS_OF_A_LEVEL));

/// @param number as it was read with acquire from numberInForce
const LogLevels& LevelsOf(unsigned number) {
    if (number == 0)
        return LogLevelsAtStart();
    const Kept* kept = newest.load(std::memory_order_acquire);
    while (kept->number != number)
        kept = kept->before;
    return kept->levels;
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
    return LevelsOf(numberInForce.load(std::memory_order_acquire));
}

void PutLogLevelsInForce(const LogLevels& levels) {
    numberInForce.store(FindOrStore(levels)->number, std::memory_order_release);
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
    const unsigned number = numberInForce.load(std::memory_order_acquire);
    const LogLevel threshold = std::max(own, LevelsOf(number).Of(source));
    remembered.store(number << BITS_OF_A_LEVEL | static_cast<unsigned>(threshold), std::memory_order_relaxed);
    return threshold;
}

} // namespace OrvPlatform
