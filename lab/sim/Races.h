// SPDX-License-Identifier: Apache-2.0
#pragma once

// Races on memory, where the build has ThreadSanitizer; elsewhere nothing of this does anything. Fibers are threads to
// it, and a change of the fiber orders nothing: only what the explored code does itself, by its locks, threads and
// wake-ups, comes before something else. The laboratory's own memory follows from the schedule and has no locks, so it
// is not watched.

namespace OrvLab {

#ifdef ORV_LAB_THREAD_SANITIZER

/// Whether the fiber that runs is watched. The change of a fiber keeps it.
class Races {
public:
    static bool AreWatched() { return watched; }
    static void Watch(bool yes);
    /// Before the first fiber of a simulation.
    static void Begin();
    /// What was done before Release of the same thing comes before what is done after Acquire.
    static void Acquire(const void* thing);
    static void Release(const void* thing);

private:
    friend class Fiber;
    static bool watched;
};

/// While it lives, the memory that is used is watched, or is not.
template <bool YES>
class Watching {
public:
    Watching() : before(Races::AreWatched()) { Races::Watch(YES); }
    ~Watching() { Races::Watch(before); }
    Watching(const Watching&) = delete;
    Watching& operator=(const Watching&) = delete;

private:
    const bool before;
};

#else

struct Races {
    static void Begin() {}
    static void Acquire(const void* /*thing*/) {}
    static void Release(const void* /*thing*/) {}
};

template <bool YES>
class Watching {
public:
    Watching() {} // NOLINT(modernize-use-equals-default): or an object of it would be unused
    Watching(const Watching&) = delete;
    Watching& operator=(const Watching&) = delete;
};

#endif

/// In what the laboratory does for a thread of the explored code: calls of the system, of libraries, callbacks.
using Unwatched = Watching<false>;
/// In what the laboratory calls of the explored code. A thread that the laboratory starts is not watched by itself.
using Watched = Watching<true>;

/// A call of the explored code.
template <typename Call>
decltype(auto) Watch(Call call) {
    const Watched watched;
    return call();
}

} // namespace OrvLab
