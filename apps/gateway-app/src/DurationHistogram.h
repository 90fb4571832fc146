// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace GatewayApp {

/// What a call had of the machine.
struct Effort {
    std::chrono::nanoseconds processor{0}; ///< time on a processor; the rest it waited, or others ran
    std::int64_t waits = 0;                ///< how often it gave the processor up
    std::int64_t preemptions = 0;          ///< how often the processor was taken away
    std::int64_t diskReads = 0;            ///< pages of the program that had to be read first
};

/// The calling thread's, since its beginning.
Effort EffortSoFar();

/// How long the calls of one kind took, in classes that double: below 16 us, below 32 us, and so on.
class DurationHistogram {
public:
    /// Does `work` and notes how long it took.
    template <typename Work>
    void Measure(Work work) {
        const Effort before = EffortSoFar();
        const auto begin = std::chrono::steady_clock::now();
        work();
        const auto end = std::chrono::steady_clock::now();
        const Effort after = EffortSoFar();
        Add(end - begin, {after.processor - before.processor, after.waits - before.waits,
                          after.preemptions - before.preemptions, after.diskReads - before.diskReads});
    }
    void Add(std::chrono::nanoseconds duration, const Effort& effort);

    std::uint64_t Count() const { return count; }
    std::chrono::nanoseconds Longest() const { return longest; }
    /// As a JSON object: count, longest_us, longest with that call's effort, and below_us with a count for each class
    /// that has one.
    std::string Json() const;

private:
    static constexpr std::size_t CLASSES = 18; // the last one takes everything from 1 s up
    std::array<std::uint64_t, CLASSES> classes{};
    std::uint64_t count = 0;
    std::chrono::nanoseconds longest{0};
    Effort effortOfLongest;
};

} // namespace GatewayApp
