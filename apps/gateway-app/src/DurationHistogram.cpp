// SPDX-License-Identifier: Apache-2.0
#include "DurationHistogram.h"

#include <sys/resource.h>

namespace GatewayApp {

namespace {

constexpr std::chrono::microseconds FIRST_BOUND{16};

std::string Microseconds(std::chrono::nanoseconds time) {
    return std::to_string(std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

} // namespace

Effort EffortSoFar() {
    rusage usage{};
    getrusage(RUSAGE_THREAD, &usage);
    const auto duration = [](const timeval& time) {
        return std::chrono::seconds(time.tv_sec) + std::chrono::microseconds(time.tv_usec);
    };
    return {duration(usage.ru_utime) + duration(usage.ru_stime), usage.ru_nvcsw, usage.ru_nivcsw, usage.ru_majflt};
}

void DurationHistogram::Add(std::chrono::nanoseconds duration, const Effort& effort) {
    std::size_t index = 0;
    std::chrono::nanoseconds bound = FIRST_BOUND;
    while (duration >= bound && index + 1 < CLASSES) {
        bound *= 2;
        ++index;
    }
    ++classes.at(index);
    ++count;
    if (duration > longest) {
        longest = duration;
        effortOfLongest = effort;
    }
}

std::string DurationHistogram::Json() const {
    std::string text = "{\"count\":" + std::to_string(count) + ",\"longest_us\":" + Microseconds(longest) +
                       ",\"longest\":{\"cpu_us\":" + Microseconds(effortOfLongest.processor) +
                       ",\"waits\":" + std::to_string(effortOfLongest.waits) +
                       ",\"preemptions\":" + std::to_string(effortOfLongest.preemptions) +
                       ",\"disk_reads\":" + std::to_string(effortOfLongest.diskReads) + "},\"below_us\":{";
    std::chrono::microseconds bound = FIRST_BOUND;
    bool first = true;
    for (std::size_t index = 0; index < CLASSES; ++index, bound *= 2) {
        if (classes.at(index) == 0)
            continue;
        const std::string name = index + 1 < CLASSES ? std::to_string(bound.count()) : "more";
        text += (first ? "\"" : ",\"") + name + "\":" + std::to_string(classes.at(index));
        first = false;
    }
    return text + "}}";
}

} // namespace GatewayApp
