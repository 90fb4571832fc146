// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "sim/Fiber.h"
#include "sim/Random.h"

#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace OrvLab {

/// Nanoseconds of virtual time since the machine was started.
using Time = std::int64_t;
constexpr Time NEVER = std::numeric_limits<Time>::max();
constexpr Time MICROSECOND = 1000;
constexpr Time MILLISECOND = 1000 * MICROSECOND;
constexpr Time SECOND = 1000 * MILLISECOND;

/// What happens beside the threads: the network and what is at its other end.
class Surroundings {
public:
    /// When something happens by itself, at the earliest; NEVER for nothing.
    virtual Time NextEvent() const = 0;
    /// Everything that is due happens.
    virtual void Advance(Time now) = 0;

protected:
    ~Surroundings() = default;
};

/// A program of several threads of which one runs at a time. Which one goes on at each lock, wait, wake-up, poll, clock
/// reading, start and end follows from the seed, and so does everything else: the same seed, the same course. The clock
/// stands still while anybody can run, but for a small pace a step; then it jumps to what is waited for next.
class Simulation {
public:
    struct Thread {
        int number = 0;
        std::string name;
        std::unique_ptr<Fiber> fiber;
        std::function<void()> body;
        bool ended = false;
        bool detached = false;
        const void* side = nullptr; // whom it works for, as whoever has started it

        // While it waits.
        const char* doing = "start";
        std::uint64_t since = 0;          // the number of the step
        bool (*isReady)(void*) = nullptr; // null: it does not wait
        void* readyArgument = nullptr;
        Time deadline = NEVER;

        const void* condition = nullptr; // a condition variable that it waits for
        int locks = 0;                   // mutexes that it holds, each counted once
        int recursiveLocks = 0;          // of these
        std::int64_t priority = 0;
        Time stalledUntil = 0; // as by a machine that does something else
    };

    /// @param trace prints each step on standard output
    Simulation(std::uint64_t seed, bool trace);
    ~Simulation();
    Simulation(const Simulation&) = delete;
    Simulation& operator=(const Simulation&) = delete;

    /// The one whose thread is running; null outside.
    static Simulation* Current();

    /// Told of each jump of the clock.
    void SetJumpListener(std::function<void(Time by)> listener) { jumpListener = std::move(listener); }
    /// Asked at each start of a thread by the code that is explored; false: it cannot be started.
    void SetStartListener(std::function<bool()> listener) { startListener = std::move(listener); }
    bool MayStart() const { return !startListener || startListener(); }
    /// Told in each thread of its end, before its locks are counted.
    void SetEndListener(std::function<void()> listener) { endListener = std::move(listener); }
    /// Told before a fault ends the process.
    void SetFailureListener(std::function<void()> listener) { failureListener = std::move(listener); }
    /// From now on what a thread has done before its latest step comes before Races::Acquire of it.
    void LetThreadsTell() { threadsTell = true; }
    void SetSurroundings(Surroundings* what) { surroundings = what; }

    /// Runs this as the first thread, and all that it starts, until all have ended.
    void Run(std::function<void()> body);

    /// @name For the threads
    /// @{
    Thread& Start(const std::string& name, std::function<void()> body);
    Thread& Self() { return *running; }
    /// Another may go on here.
    void Step(const char* doing);
    /// Waits until `isReady()`, at the latest until `deadline`.
    /// @return false when the deadline has passed and it is not ready
    template <typename Ready>
    bool Wait(const char* doing, Ready isReady, Time deadline = NEVER) {
        const auto ask = [](void* argument) { return (*static_cast<Ready*>(argument))(); };
        return WaitFor(doing, ask, &isReady, deadline);
    }
    void Sleep(Time duration);
    void Join(Thread& thread);
    void Notify(const void* condition, bool all);
    /// As by fork(), in a process of its own that has a copy of everything, and of the threads only this one. One at a
    /// time.
    void RunInForkedChild(const std::function<void()>& body);
    /// Whether such a process may exist.
    bool IsForking() const { return forking != nullptr; }
    Time Now() const { return now; }
    /// @}

    /// By its number, also one that has ended; null when there was none.
    Thread* Find(int number);
    std::size_t ThreadsAlive() const;

    /// The thread that runs does nothing for so long, and it is not its fault.
    void Stall(Time duration);
    /// For how long threads were and are going to be held up, all together.
    Time StallTime() const { return stallTime; }
    /// The same without what is still to come.
    Time StallTimeSoFar() const;
    /// From now on the machine has time for this program alone.
    void DisableStalls() { stallOdds = 0; }
    bool OneInSchedule(unsigned often) { return schedule.OneIn(often); }
    std::uint64_t AnyNumber() { return schedule.Next(); }
    /// Whether spurious wake-ups and interrupted calls are part of this course.
    bool HasSpuriousWakeUps() const { return spuriousWakeUps; }

    /// @name What is told
    /// @{
    void Trace(const std::string& what);
    /// Something that must not be has happened: says so and ends the process with FAILED.
    [[noreturn]] void Fail(const std::string& what);
    static constexpr int FAILED = 3;
    /// Of the course so far.
    std::uint64_t Fingerprint() const { return fingerprint; }
    std::uint64_t Steps() const { return steps; }
    /// @}

private:
    enum class Strategy { RANDOM, PRIORITIES };

    bool WaitFor(const char* doing, bool (*ready)(void*), void* argument, Time deadline);
    void Reschedule();
    Thread* Choose();
    Thread* ByPriority();
    bool IsForkedChild() const;
    void GatherReady();
    void Jump();
    void Pace();
    [[noreturn]] void FailAsStuck();
    void Mix(std::uint64_t number);

    const std::uint64_t seed;
    const bool tracing;
    Random schedule;

    // The character of this course.
    Strategy strategy;
    unsigned stickiness;  // of 16 steps, how many are left to whoever is running
    std::uint64_t length; // a guess, for the changes of priority
    unsigned stallOdds;   // one step in so many holds its thread up; 0: none
    Time pace;            // of the clock, a step at most
    bool spuriousWakeUps;
    bool threadsTell = false;
    const Thread* forking = nullptr;
    int process = 0; // of the one that is forking

    Time now = 1000 * SECOND;
    Time stallTime = 0;
    std::function<void(Time)> jumpListener;
    std::function<bool()> startListener;
    std::function<void()> endListener;
    std::function<void()> failureListener;
    std::uint64_t steps = 0;
    std::uint64_t fingerprint = 0xcbf29ce484222325U;
    std::int64_t lowest = 0;
    unsigned inARow = 0;
    std::vector<std::unique_ptr<Thread>> threads;
    std::vector<Thread*> candidates;
    Thread* running = nullptr;
    Fiber outside;
    Surroundings* surroundings = nullptr;
};

} // namespace OrvLab
