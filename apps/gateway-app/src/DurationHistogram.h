// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace GatewayApp {

/// How long the calls of one kind took, in classes that double: below 16 us, below 32 us, and so on.
class DurationHistogram {
public:
    /// `processor` is how much of the duration the thread was on a processor; the rest it waited, or others ran.
    void Add(std::chrono::nanoseconds duration, std::chrono::nanoseconds processor);

    std::uint64_t Count() const { return count; }
    std::chrono::nanoseconds Longest() const { return longest; }
    /// As a JSON object: count, longest_us, longest_cpu_us (the same call's time on a processor), and below_us with a
    /// count for each class that has one.
    std::string Json() const;

private:
    static constexpr std::size_t kClasses = 18; // the last one takes everything from 1 s up
    std::array<std::uint64_t, kClasses> classes{};
    std::uint64_t count = 0;
    std::chrono::nanoseconds longest{0};
    std::chrono::nanoseconds processorOfLongest{0};
};

} // namespace GatewayApp
