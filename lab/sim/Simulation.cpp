// SPDX-License-Identifier: Apache-2.0
#include "sim/Simulation.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <exception>
#include <utility>

namespace OrvLab {

namespace {

Simulation* current = nullptr;

constexpr std::uint64_t MOST_STEPS = 200'000;
constexpr unsigned MOST_IN_A_ROW = 500;

} // namespace

// Asked before it is known whether the fiber is watched.
__attribute__((no_sanitize("thread"))) Simulation* Simulation::Current() {
    return current != nullptr && current->running != nullptr ? current : nullptr;
}

Simulation::Simulation(std::uint64_t number, bool trace)
    : seed(number),
      tracing(trace),
      schedule(number * 2 + 1),
      strategy(schedule.OneIn(2) ? Strategy::RANDOM : Strategy::PRIORITIES),
      stickiness(schedule.Weighted({3, 2, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 2, 0, 2})),
      length(500U << schedule.Below(3)),
      stallOdds(schedule.OneIn(3) ? 50U << schedule.Below(4) : 0),
      pace(schedule.OneIn(4) ? MILLISECOND / 2 : MICROSECOND),
      spuriousWakeUps(schedule.OneIn(3)) {
    current = this;
}

Simulation::~Simulation() {
    current = nullptr;
}

void Simulation::Run(std::function<void()> body) {
    Races::Begin();
    Thread& first = Start("main", std::move(body));
    running = &first;
    outside.SwitchTo(*first.fiber);
    running = nullptr;
    Races::Acquire(this);
}

Simulation::Thread& Simulation::Start(const std::string& name, std::function<void()> body) {
    threads.push_back(std::make_unique<Thread>());
    Thread& thread = *threads.back();
    thread.number = static_cast<int>(threads.size());
    thread.name = name.empty() ? "thread " + std::to_string(thread.number) : name;
    thread.body = std::move(body);
    thread.side = running != nullptr ? running->side : nullptr;
    thread.priority = static_cast<std::int64_t>(schedule.Below(1U << 20U)) + 1;
    thread.fiber = std::make_unique<Fiber>([this, &thread] {
        const Unwatched unwatched;
        Races::Acquire(&thread);
        try {
            thread.body();
        } catch (const std::exception& exception) {
            Fail("an exception leaves " + thread.name + ": " + exception.what());
        }
        thread.body = nullptr;
        if (endListener)
            endListener();
        if (thread.locks != 0)
            Fail(thread.name + " ends and holds a lock");
        thread.ended = true;
        Races::Release(&thread);
        Races::Release(this);
        thread.doing = "ended";
        Reschedule();
    });
    Races::Release(&thread);
    return thread;
}

void Simulation::Step(const char* doing) {
    running->doing = doing;
    if (stallOdds != 0 && schedule.OneIn(stallOdds)) {
        const Time longest = (schedule.OneIn(8) ? 2000 : 50) * MILLISECOND;
        Stall(static_cast<Time>(schedule.Next() % static_cast<std::uint64_t>(longest)));
        return;
    }
    Reschedule();
}

void Simulation::Stall(Time duration) {
    stallTime += duration;
    running->stalledUntil = now + duration;
    Reschedule();
}

Time Simulation::StallTimeSoFar() const {
    Time toCome = 0;
    for (const auto& thread : threads)
        if (!thread->ended && thread->stalledUntil > now)
            toCome += thread->stalledUntil - now;
    return stallTime - toCome;
}

bool Simulation::WaitFor(const char* doing, bool (*isReady)(void*), void* argument, Time deadline) {
    Thread& self = *running;
    self.doing = doing;
    self.isReady = isReady;
    self.readyArgument = argument;
    self.deadline = deadline;
    Reschedule();
    self.isReady = nullptr;
    return isReady(argument);
}

void Simulation::Sleep(Time duration) {
    Wait(
        "sleep", [] { return false; }, now + duration);
}

void Simulation::Join(Thread& thread) {
    Wait("join", [&] { return thread.ended; });
    Races::Acquire(&thread);
}

void Simulation::Notify(const void* condition, bool all) {
    std::vector<Thread*> waiting;
    for (const auto& thread : threads)
        if (thread->condition == condition)
            waiting.push_back(thread.get());
    if (waiting.empty())
        return;
    if (all) {
        for (Thread* thread : waiting)
            thread->condition = nullptr;
    } else {
        waiting[schedule.Below(static_cast<unsigned>(waiting.size()))]->condition = nullptr;
    }
}

void Simulation::RunInForkedChild(const std::function<void()>& body) {
    Wait("fork", [this] { return forking == nullptr; });
    forking = running;
    process = getpid();
    std::fflush(stdout);
    const pid_t child = fork(); // the handlers that it calls take turns with the other threads
    if (child == 0) {
        body();
        _exit(0);
    }
    forking = nullptr;
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    if (status != 0)
        Fail("a forked child cannot go on");
}

Simulation::Thread* Simulation::Find(int number) {
    return number >= 1 && number <= static_cast<int>(threads.size())
               ? threads[static_cast<std::size_t>(number) - 1].get()
               : nullptr;
}

std::size_t Simulation::ThreadsAlive() const {
    return static_cast<std::size_t>(
        std::count_if(threads.begin(), threads.end(), [](const auto& thread) { return !thread->ended; }));
}

/// Of the threads it has only the one that has forked.
bool Simulation::IsForkedChild() const {
    return forking != nullptr && getpid() != process;
}

void Simulation::GatherReady() {
    candidates.clear();
    const bool isForkedChild = IsForkedChild();
    for (const auto& thread : threads) {
        if (thread->ended || thread->stalledUntil > now || (isForkedChild && thread.get() != forking))
            continue;
        if (thread->isReady == nullptr || thread->deadline <= now || thread->isReady(thread->readyArgument))
            candidates.push_back(thread.get());
    }
}

void Simulation::Reschedule() {
    Thread& before = *running;
    before.since = steps;
    if (threadsTell)
        Races::Release(&before);
    if (++steps > MOST_STEPS)
        Fail("no end after " + std::to_string(MOST_STEPS) + " steps");
    Pace();
    if (surroundings != nullptr)
        surroundings->Advance(now);
    for (GatherReady(); candidates.empty(); GatherReady()) {
        if (std::all_of(threads.begin(), threads.end(), [](const auto& thread) { return thread->ended; })) {
            before.fiber->EndWith(outside);
            return;
        }
        Jump();
    }
    Thread* next = Choose();
    Mix(static_cast<std::uint64_t>(next->number) ^ static_cast<std::uint64_t>(now) << 8U);
    if (tracing)
        Trace(next->name + ": " + next->doing);
    if (next == &before)
        return;
    running = next;
    if (before.ended)
        before.fiber->EndWith(*next->fiber);
    else
        before.fiber->SwitchTo(*next->fiber);
}

Simulation::Thread* Simulation::Choose() {
    Thread* next = nullptr;
    if (strategy == Strategy::PRIORITIES)
        next = ByPriority();
    else if (std::find(candidates.begin(), candidates.end(), running) != candidates.end() &&
             schedule.Below(16) < stickiness)
        next = running;
    else
        next = candidates[schedule.Below(static_cast<unsigned>(candidates.size()))];
    return next;
}

// The most important one always, but for a few changes at random: finds what needs few preemptions at the right places.
Simulation::Thread* Simulation::ByPriority() {
    Thread* next = *std::max_element(candidates.begin(), candidates.end(),
                                     [](auto* a, auto* b) { return a->priority < b->priority; });
    inARow = next == running ? inARow + 1 : 0;
    if (schedule.Below(static_cast<unsigned>(length)) < 3 || inARow > MOST_IN_A_ROW) {
        next->priority = --lowest;
        inARow = 0;
        next = *std::max_element(candidates.begin(), candidates.end(),
                                 [](auto* a, auto* b) { return a->priority < b->priority; });
    }
    return next;
}

void Simulation::Pace() {
    now += static_cast<Time>(schedule.Next() % static_cast<std::uint64_t>(pace));
}

void Simulation::Jump() {
    const bool isForkedChild = IsForkedChild();
    Time next = surroundings != nullptr ? surroundings->NextEvent() : NEVER;
    for (const auto& thread : threads) {
        if (thread->ended || (isForkedChild && thread.get() != forking))
            continue;
        if (thread->stalledUntil > now)
            next = std::min(next, thread->stalledUntil);
        else
            next = std::min(next, thread->deadline);
    }
    if (next == NEVER)
        FailAsStuck();
    if (next > now) {
        if (jumpListener)
            jumpListener(next - now);
        now = next;
    }
    if (surroundings != nullptr)
        surroundings->Advance(now);
}

void Simulation::FailAsStuck() {
    std::string text = "stuck, everybody waits for ever:";
    for (const auto& thread : threads)
        if (!thread->ended)
            text += " [" + thread->name + ": " + thread->doing + "]";
    Fail(text);
}

void Simulation::Mix(std::uint64_t number) {
    fingerprint = (fingerprint ^ number) * 0x100000001b3U;
}

void Simulation::Trace(const std::string& what) {
    if (tracing)
        std::printf("%10.6f %s\n", static_cast<double>(now - 1000 * SECOND) / SECOND, what.c_str());
}

void Simulation::Fail(const std::string& what) {
    std::fflush(stdout);
    std::fprintf(stderr, "seed %llu, %.6f s, %s: %s\n", static_cast<unsigned long long>(seed),
                 static_cast<double>(now - 1000 * SECOND) / SECOND, running != nullptr ? running->name.c_str() : "",
                 what.c_str());
    if (failureListener)
        failureListener();
    const Watched watched; // or this end would be a fault to ThreadSanitizer, too
    _exit(FAILED);
}

} // namespace OrvLab
