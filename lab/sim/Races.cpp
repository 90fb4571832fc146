// SPDX-License-Identifier: Apache-2.0
#include "sim/Races.h"

#ifdef ORV_LAB_THREAD_SANITIZER
#include "sim/Simulation.h"

#include <cerrno>
#include <cstddef>
#include <sanitizer/tsan_interface.h>
#include <sys/single_threaded.h>

extern "C" {
// Parts of ThreadSanitizer's runtime that its header leaves out.
void AnnotateIgnoreReadsBegin(const char* file, int line);
void AnnotateIgnoreReadsEnd(const char* file, int line);
void AnnotateIgnoreSyncBegin(const char* file, int line);
void AnnotateIgnoreSyncEnd(const char* file, int line);
void AnnotateBenignRaceSized(const char* file, int line, const volatile void* memory, std::size_t size,
                             const char* why);

// One race ends the process with a status of its own.
const char* __tsan_default_options() { // NOLINT(bugprone-reserved-identifier,readability-identifier-naming)
    return "halt_on_error=1:report_thread_leaks=0:second_deadlock_stack=0:detect_deadlocks=0";
}
}

namespace OrvLab {

bool Races::watched = true;

void Races::Watch(bool yes) {
    if (yes == watched || Simulation::Current() == nullptr)
        return;
    watched = yes;
    if (yes) {
        AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
        AnnotateIgnoreReadsEnd(__FILE__, __LINE__); // and writes
    } else {
        AnnotateIgnoreReadsBegin(__FILE__, __LINE__);
        AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    }
}

void Races::Begin() {
    // To the C library there is one thread, and for one alone shared pointers would be counted without atomics.
    __libc_single_threaded = 0;
    AnnotateBenignRaceSized(__FILE__, __LINE__, &errno, sizeof errno, "each fiber has its own there");
    for (const ThreadLocals::Range& range : ThreadLocals::All())
        AnnotateBenignRaceSized(__FILE__, __LINE__, range.begin, range.size, "each fiber has its own there");
}

void Races::Acquire(const void* thing) {
    const Watched now;
    __tsan_acquire(const_cast<void*>(thing));
}

void Races::Release(const void* thing) {
    const Watched now;
    __tsan_release(const_cast<void*>(thing));
}

} // namespace OrvLab
#endif
