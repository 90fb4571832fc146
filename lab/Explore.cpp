// SPDX-License-Identifier: Apache-2.0
// explore SECONDS [--from SEED] [--jobs NUMBER]   runs one seed after the other, for so long
// explore --seed SEED [--trace]                  runs that one; with --trace each step of it is printed
//
// Each batch of seeds runs in a process of its own, so that a crash, a leak or a hang is laid at the door of its seed.
// Exit status: 0 when nothing was found, otherwise 1, and the seed is printed. One seed that does not end is ended.
#include "Explored.h"
#include "sim/Simulation.h"
#include "sim/ThreadLocals.h"

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>
#include <random>
#include <string>
#include <thread>
#include <vector>

// An explorer may have its own.
__attribute__((weak)) std::uint64_t OrvLab::SeedsOfAProcess() {
#ifdef ORV_LAB_THREAD_SANITIZER
    return 100;
#else
    return 500;
#endif
}

namespace {

using OrvLab::Simulation;
using Clock = std::chrono::steady_clock;

// A seed takes a millisecond or two; this is for a machine that is busy with other things.
constexpr std::chrono::seconds HANGS{120};

struct Course {
    std::uint64_t fingerprint;
    std::uint64_t steps;
};

Course RunSeed(std::uint64_t seed, bool trace) {
    Simulation simulation(seed, trace);
    OrvLab::RunExplored(simulation, seed);
    return {simulation.Fingerprint(), simulation.Steps()};
}

/// One that hangs is ended by SIGALRM.
int RunOne(std::uint64_t seed, bool trace) {
    alarm(static_cast<unsigned>(HANGS.count()));
    const Course course = RunSeed(seed, trace);
    std::printf("seed %llu: %llu steps, fingerprint %016llx\n", static_cast<unsigned long long>(seed),
                static_cast<unsigned long long>(course.steps), static_cast<unsigned long long>(course.fingerprint));
    return 0;
}

/// What a worker tells, in memory that it shares.
struct Progress {
    std::atomic<std::uint64_t> seed;
    std::atomic<std::uint64_t> steps;
    std::atomic<std::uint64_t> end; // behind the last seed
};

struct Worker {
    pid_t process = 0;
    Progress* progress = nullptr;
    std::uint64_t first = 0;
    std::uint64_t seen = 0;
    Clock::time_point moved;
};

Progress* SharedProgress() {
    void* memory = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) {
        std::perror("explore: mmap");
        std::exit(2);
    }
    return new (memory) Progress{};
}

/// @param until no further seed is begun then
void Begin(Worker& worker, std::uint64_t first, std::uint64_t end, Clock::time_point until) {
    worker.first = worker.seen = first;
    worker.progress->end = end;
    worker.moved = Clock::now();
    worker.progress->seed = first;
    std::fflush(stdout);
    worker.process = fork();
    if (worker.process < 0) {
        std::perror("explore: fork");
        std::exit(2);
    }
    if (worker.process != 0)
        return;
    std::uint64_t seed = first;
    for (; seed < end && (seed == first || Clock::now() < until); ++seed) {
        worker.progress->seed = seed;
        worker.progress->steps += RunSeed(seed, false).steps;
    }
    worker.progress->end = seed;
    worker.progress->seed = seed;
    std::exit(0);
}

bool HasEnded(Worker& worker, int& status) {
    if (waitpid(worker.process, &status, WNOHANG) == worker.process)
        return true;
    const std::uint64_t seed = worker.progress->seed;
    if (seed != worker.seen) {
        worker.seen = seed;
        worker.moved = Clock::now();
    }
    if (Clock::now() - worker.moved < HANGS)
        return false;
    std::fprintf(stderr, "explore: seed %llu hangs\n", static_cast<unsigned long long>(seed));
    kill(worker.process, SIGKILL);
    waitpid(worker.process, &status, 0);
    return true;
}

bool Fails(Worker worker, std::uint64_t seed) {
    int status = 0;
    for (Begin(worker, seed, seed + 1, Clock::time_point::max()); !HasEnded(worker, status);)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    return status != 0;
}

/// The seed that ended a batch; of one that ended by itself, as with a leak, the first that does so alone.
std::uint64_t Culprit(const Worker& worker) {
    const std::uint64_t seed = worker.progress->seed;
    const std::uint64_t end = worker.progress->end;
    if (seed < end)
        return seed;
    for (std::uint64_t one = worker.first; one < end; ++one)
        if (Fails(worker, one))
            return one;
    return worker.first;
}

int Explore(std::chrono::seconds duration, std::uint64_t from, unsigned jobs) {
    const OrvLab::ThreadLocals known; // once for all processes
    const auto begin = Clock::now();
    std::vector<Worker> workers(jobs);
    std::uint64_t next = from;
    std::uint64_t ran = 0;
    for (Worker& worker : workers) {
        worker.progress = SharedProgress();
        Begin(worker, next, next + OrvLab::SeedsOfAProcess(), begin + duration);
        next += OrvLab::SeedsOfAProcess();
    }
    std::printf("explore: seeds from %llu\n", static_cast<unsigned long long>(from));
    int found = 0;
    while (std::any_of(workers.begin(), workers.end(), [](const Worker& one) { return one.process != 0; })) {
        for (Worker& worker : workers) {
            int status = 0;
            if (worker.process == 0 || !HasEnded(worker, status))
                continue;
            worker.process = 0;
            ran += worker.progress->seed - worker.first;
            if (status != 0) {
                ++found;
                std::printf("explore: seed %llu fails\n", static_cast<unsigned long long>(Culprit(worker)));
            } else if (found == 0 && Clock::now() - begin < duration) {
                Begin(worker, next, next + OrvLab::SeedsOfAProcess(), begin + duration);
                next += OrvLab::SeedsOfAProcess();
            }
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    std::uint64_t steps = 0;
    for (const Worker& worker : workers)
        steps += worker.progress->steps;
    const double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
    std::printf("explore: %llu seeds, %llu steps, %.0f s, %.0f seeds a second\n", static_cast<unsigned long long>(ran),
                static_cast<unsigned long long>(steps), seconds, static_cast<double>(ran) / seconds);
    return found == 0 ? 0 : 1;
}

int Misused() {
    std::fprintf(stderr, "usage: orv-explore SECONDS [--from SEED] [--jobs NUMBER] | --seed SEED [--trace]\n");
    return 2;
}

} // namespace

int main(int count, char** words) {
    std::uint64_t seconds = 0;
    std::uint64_t seed = 0;
    std::uint64_t from = std::random_device{}();
    std::uint64_t jobs = 1;
    bool one = false;
    bool trace = false;
    for (int index = 1; index < count; ++index) {
        const std::string word = words[index];
        if (word == "--trace") {
            trace = true;
            continue;
        }
        const bool named = word == "--seed" || word == "--from" || word == "--jobs";
        const char* text = named && index + 1 < count ? words[++index] : words[index];
        char* end = nullptr;
        const std::uint64_t number = std::strtoull(text, &end, 10);
        if (*text == '\0' || *end != '\0')
            return Misused();
        one = one || word == "--seed";
        (word == "--seed" ? seed : word == "--from" ? from : word == "--jobs" ? jobs : seconds) = number;
    }
    if (one)
        return RunOne(seed, trace);
    if (seconds == 0 || jobs == 0)
        return Misused();
    return Explore(std::chrono::seconds(seconds), from, static_cast<unsigned>(jobs));
}
