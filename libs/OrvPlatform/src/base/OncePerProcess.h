// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <atomic>
#include <mutex>

namespace OrvPlatform {

/// An object of which a process has one: made on first use, by whichever thread comes first, and never destroyed, so
/// that static objects may use it in their destructors. Needs no initialisation itself.
/// Unlike a static local, it can be kept from being half made when another thread forks.
template <typename T>
class OncePerProcess {
public:
    constexpr OncePerProcess() noexcept = default;
    OncePerProcess(const OncePerProcess&) = delete;
    OncePerProcess& operator=(const OncePerProcess&) = delete;

    /// @param make returns a new T; called at most once
    template <typename Make>
    T& Get(Make make) {
        if (T* made = object.load(std::memory_order_acquire))
            return *made;
        const std::lock_guard<std::mutex> guard(mutex);
        if (object.load(std::memory_order_relaxed) == nullptr)
            object.store(make(), std::memory_order_release);
        return *object.load(std::memory_order_relaxed);
    }

    /// Null as long as there was no use.
    T* IfMade() const { return object.load(std::memory_order_acquire); }

    void BeforeFork() { mutex.lock(); }
    void AfterFork() { mutex.unlock(); }

private:
    std::mutex mutex;
    std::atomic<T*> object{nullptr};
};

} // namespace OrvPlatform
