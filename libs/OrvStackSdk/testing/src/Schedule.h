// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <utility>

namespace OrvStackSdk::Testing {

/// What is to happen and when; what is due at the same time, in the order in which it was asked for. Has no clock.
/// Callable from any thread; Run on one at a time.
class Schedule {
public:
    using Milliseconds = std::chrono::milliseconds;
    using Id = unsigned long;
    /// Returns how long after its time it is to run again; nothing when it is done.
    using Step = std::function<std::optional<Milliseconds>()>;

    Id Add(Milliseconds due, Step step);
    void Cancel(Id id);
    void Clear();

    /// When the next one is due.
    std::optional<Milliseconds> NextDue() const;

    /// Runs the next one, if it is due at `now`. @return false when none was
    bool RunNext(Milliseconds now);

private:
    struct Item {
        Id id;
        Step step;
    };

    mutable std::mutex mutex;
    Id lastId = 0;
    unsigned long lastOrder = 0;
    std::map<std::pair<Milliseconds, unsigned long>, Item> items;
    std::optional<Id> running; // the one that runs, or ran last
    bool cancelled = false;    // the one that runs
};

} // namespace OrvStackSdk::Testing
