// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Races.h"
#include "sim/ThreadLocals.h"

#include <cstddef>
#include <functional>

#if !defined(__x86_64__)
#include <ucontext.h>
#endif

namespace OrvLab {

/// A flow of control of its own on a stack of its own, inside one thread of the system. Exceptions and errno belong to
/// the fiber; sanitizers are told of each change.
class Fiber {
public:
    /// The flow that is running already, to which others return.
    Fiber();
    /// @param main runs at the first SwitchTo; it never returns: its last act is a SwitchTo elsewhere
    explicit Fiber(std::function<void()> main);
    ~Fiber();
    Fiber(const Fiber&) = delete;
    Fiber& operator=(const Fiber&) = delete;

    /// This one, which runs, stops here and `next` goes on.
    void SwitchTo(Fiber& next);
    /// The same for good.
    void EndWith(Fiber& next);

private:
    static void Enter() noexcept;
    void Prepare();
    void Leave(Fiber& next, bool forGood);
    void Arrived();

    std::function<void()> body;
#if defined(__x86_64__)
    void* context = nullptr; // the stack pointer, what is to be restored above it
#else
    ucontext_t context{};
#endif
    void* stack = nullptr;
    const void* stackBottom = nullptr;
    std::size_t stackSize = 0;
    [[maybe_unused]] void* fakeStack = nullptr;
    void* exceptions[2] = {nullptr, nullptr};
    int error = 0;
    ThreadLocals locals;
#ifdef ORV_LAB_THREAD_SANITIZER
    void* thread = nullptr; // to the sanitizer
    bool watched = true;
#endif
};

} // namespace OrvLab
