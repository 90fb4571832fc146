// SPDX-License-Identifier: Apache-2.0
#include "ProcessFigures.h"

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

namespace OrvTest {

namespace {

std::size_t Entries(const char* folder) {
    const std::filesystem::directory_iterator entries(folder);
    return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

} // namespace

ProcessFigures ProcessFigures::Now() {
    // ThreadSanitizer starts a thread of its own with the first one of the program.
    static const bool hadAThread = [] { return std::thread([] {}).join(), true; }();
    static_cast<void>(hadAThread);
    std::size_t all = 0;
    std::size_t resident = 0;
    std::ifstream("/proc/self/statm") >> all >> resident;
    return {Entries("/proc/self/task"), Entries("/proc/self/fd"),
            resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE))};
}

} // namespace OrvTest
