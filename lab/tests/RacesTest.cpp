// SPDX-License-Identifier: Apache-2.0
// Are races on memory found, and only those? Small programs under ThreadSanitizer: what they do is ordered by what they
// use for it, and by nothing else.
#include "sim/Simulation.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

constexpr std::uint64_t SEEDS = 100;
constexpr int RACE = 66; // ThreadSanitizer's exit status

/// Runs the program, watched, once for each seed.
void RunAll(const std::function<void()>& program) {
    for (std::uint64_t seed = 0; seed < SEEDS; ++seed) {
        Simulation simulation(seed, false);
        simulation.Run([&] { Watch([&] { program(); }); });
    }
}

void FindsRace(const std::function<void()>& program) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAll(program), testing::ExitedWithCode(RACE), "data race");
}

} // namespace

TEST(ARaceOnMemory, IsFoundWhereOneThreadWritesWithoutTheLock) {
    FindsRace([] {
        std::mutex mutex;
        int shared = 0;
        std::thread other([&] {
            const std::lock_guard<std::mutex> lock(mutex);
            ++shared;
        });
        ++shared;
        other.join();
    });
}

TEST(ARaceOnMemory, IsFoundThoughOneThreadRunsAtATimeAndTheirOtherLocksTakeTurns) {
    FindsRace([] {
        std::mutex ones;
        std::mutex others;
        int shared = 0;
        std::thread other([&] {
            const std::lock_guard<std::mutex> lock(others);
            ++shared;
        });
        {
            const std::lock_guard<std::mutex> lock(ones);
            ++shared;
        }
        other.join();
    });
}

TEST(ARaceOnMemory, IsNotFoundWhereALockABeginningOrAnEndOrdersThem) {
    RunAll([] {
        std::mutex mutex;
        int shared = 0;
        int before = 1;
        std::thread other([&] {
            const std::lock_guard<std::mutex> lock(mutex);
            shared += before;
        });
        {
            const std::lock_guard<std::mutex> lock(mutex);
            ++shared;
        }
        other.join();
        before = shared;
        EXPECT_EQ(shared, 2);
    });
}

TEST(ARaceOnMemory, IsNotFoundBehindAConditionVariableOrAWakeUp) {
    RunAll([] {
        std::mutex mutex;
        std::condition_variable changed;
        bool isReady = false;
        int told = 0;
        const int wakeUps = eventfd(0, EFD_CLOEXEC);
        std::thread other([&] {
            told = 1;
            eventfd_write(wakeUps, 1);
            const std::lock_guard<std::mutex> lock(mutex);
            isReady = true;
            changed.notify_one();
        });
        eventfd_t count = 0;
        if (eventfd_read(wakeUps, &count) == 0)
            EXPECT_EQ(told, 1);
        std::unique_lock<std::mutex> lock(mutex);
        while (!isReady)
            changed.wait(lock);
        lock.unlock();
        EXPECT_EQ(told, 1);
        other.join();
        close(wakeUps);
    });
}

TEST(ARaceOnMemory, IsFoundBehindAnAtomicThatOrdersNothing) {
    const auto hand = [](std::memory_order store, std::memory_order load) {
        std::atomic<bool> isReady{false};
        int shared = 0;
        std::thread other([&] {
            shared = 1;
            isReady.store(true, store);
        });
        if (isReady.load(load))
            EXPECT_EQ(shared, 1);
        other.join();
    };
    RunAll([&] { hand(std::memory_order_release, std::memory_order_acquire); });
    FindsRace([&] { hand(std::memory_order_relaxed, std::memory_order_relaxed); });
}

TEST(AnExplorerUnderThreadSanitizer, LetsAnotherThreadGoOnBetweenTwoOperationsOnAtomics) {
    int lost = 0;
    RunAll([&] {
        std::atomic<int> count{0};
        std::thread other([&] { count.store(count.load() + 1); });
        count.store(count.load() + 1);
        other.join();
        lost += count.load() == 1 ? 1 : 0;
    });
    EXPECT_GT(lost, 0);
}

TEST(ARaceOnMemory, IsNotFoundInTheCountOfASharedPointer) {
    RunAll([] {
        const auto shared = std::make_shared<int>(1);
        std::thread other([copy = shared] { EXPECT_EQ(*std::shared_ptr<int>(copy), 1); });
        EXPECT_EQ(*std::shared_ptr<int>(shared), 1);
        other.join();
    });
}

TEST(ARaceOnMemory, IsNotLookedForInTheLaboratorysOwnMemory) {
    for (std::uint64_t seed = 0; seed < SEEDS; ++seed) {
        Simulation simulation(seed, false);
        simulation.Run([&] {
            int shared = 0;
            Simulation::Thread& other = simulation.Start("other", [&] {
                ++shared;
                simulation.Step("in between");
                ++shared;
            });
            ++shared;
            simulation.Join(other);
            EXPECT_EQ(shared, 3);
        });
    }
}

} // namespace OrvLab
