// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <mutex>

// Lock annotations that clang checks (-Wthread-safety); nothing for other compilers.
#if defined(__clang__)
#define ORV_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define ORV_THREAD_ANNOTATION(x)
#endif
#define ORV_GUARDED_BY(x) ORV_THREAD_ANNOTATION(guarded_by(x))
#define ORV_REQUIRES(...) ORV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// For functions between which a lock stays locked, as round a fork.
#define ORV_NO_LOCK_ANALYSIS ORV_THREAD_ANNOTATION(no_thread_safety_analysis)
#define ORV_EXCLUDES(...) ORV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))

namespace OrvPlatform {

/// A std::mutex that clang's analysis knows. Its lower-case members make it fit std::condition_variable_any.
class ORV_THREAD_ANNOTATION(capability("mutex")) Mutex {
public:
    void lock() ORV_THREAD_ANNOTATION(acquire_capability()) { mutex.lock(); }
    void unlock() ORV_THREAD_ANNOTATION(release_capability()) { mutex.unlock(); }

private:
    std::mutex mutex;
};

class ORV_THREAD_ANNOTATION(scoped_lockable) MutexLock {
public:
    explicit MutexLock(Mutex& held) ORV_THREAD_ANNOTATION(acquire_capability(held)) : mutex(held) { mutex.lock(); }
    ~MutexLock() ORV_THREAD_ANNOTATION(release_capability()) { mutex.unlock(); }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex;
};

/// Releases a mutex that the caller holds, and takes it again at the end of the scope.
class ORV_THREAD_ANNOTATION(scoped_lockable) Unlocked {
public:
    explicit Unlocked(Mutex& held) ORV_THREAD_ANNOTATION(release_capability(held)) : mutex(held) { mutex.unlock(); }
    ~Unlocked() ORV_THREAD_ANNOTATION(release_capability()) { mutex.lock(); } // "release" ends what the scope did
    Unlocked(const Unlocked&) = delete;
    Unlocked& operator=(const Unlocked&) = delete;

private:
    Mutex& mutex;
};

} // namespace OrvPlatform
