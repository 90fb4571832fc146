// SPDX-License-Identifier: Apache-2.0
// Does the explorer find what it is made for? Small programs with a known fault each, and the same without it.
#include "sim/Simulation.h"
#include "sim/Descriptors.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

constexpr std::uint64_t SEEDS = 300;

/// Runs the program once for each seed; ends the process at the first fault.
void RunAll(const std::function<void(Simulation&)>& program) {
    for (std::uint64_t seed = 0; seed < SEEDS; ++seed) {
        Simulation simulation(seed, false);
        simulation.Run([&] { program(simulation); });
    }
}

void FindsFault(const std::function<void(Simulation&)>& program, const char* text) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(RunAll(program), testing::ExitedWithCode(Simulation::FAILED), text);
}

void TakeInOrder(std::mutex& first, std::mutex& second) {
    const std::lock_guard<std::mutex> one(first);
    const std::lock_guard<std::mutex> two(second);
}

void ForkBesideALock(Simulation& simulation, bool waitsForIt) {
    std::mutex mutex;
    std::thread other([&] {
        const std::lock_guard<std::mutex> lock(mutex);
        simulation.Step("work");
    });
    if (waitsForIt)
        other.join();
    simulation.RunInForkedChild([&] { const std::lock_guard<std::mutex> lock(mutex); });
    if (!waitsForIt)
        other.join();
}

} // namespace

TEST(AnExplorer, LetsARecursiveLockBeTakenAgainByItsThreadAlone) {
    RunAll([](Simulation& simulation) {
        std::recursive_mutex mutex;
        int inside = 0;
        const auto body = [&] {
            const std::lock_guard<std::recursive_mutex> outer(mutex);
            EXPECT_EQ(inside++, 0);
            {
                const std::lock_guard<std::recursive_mutex> inner(mutex);
                EXPECT_EQ(simulation.Self().locks, 1);
                simulation.Step("work");
            }
            EXPECT_EQ(simulation.Self().locks, 1);
            simulation.Step("more work");
            EXPECT_EQ(--inside, 0);
        };
        std::thread other(body);
        body();
        other.join();
    });
}

TEST(AnExplorer, FindsALockThatAForkedChildInheritsFromAThreadThatItDoesNotHave) {
    FindsFault([](Simulation& simulation) { ForkBesideALock(simulation, false); }, "a forked child cannot go on");
    RunAll([](Simulation& simulation) { ForkBesideALock(simulation, true); });
}

TEST(AnExplorer, FindsTwoLocksThatAreTakenInDifferentOrders) {
    FindsFault(
        [](Simulation&) {
            std::mutex left;
            std::mutex right;
            std::thread other([&] { TakeInOrder(left, right); });
            TakeInOrder(right, left);
            other.join();
        },
        "stuck");
    RunAll([](Simulation&) {
        std::mutex left;
        std::mutex right;
        std::thread other([&] { TakeInOrder(left, right); });
        TakeInOrder(left, right);
        other.join();
    });
}

TEST(AnExplorer, FindsAWakeUpThatComesBeforeTheWait) {
    const auto program = [](bool looksFirst) {
        std::mutex mutex;
        std::condition_variable changed;
        bool done = false;
        std::thread other([&] {
            const std::lock_guard<std::mutex> lock(mutex);
            done = true;
            changed.notify_all();
        });
        {
            std::unique_lock<std::mutex> lock(mutex);
            if (looksFirst)
                changed.wait(lock, [&] { return done; });
            else
                changed.wait(lock);
        }
        other.join();
    };
    FindsFault([&](Simulation&) { program(false); }, "stuck");
    RunAll([&](Simulation&) { program(true); });
}

TEST(AnExplorer, FindsAnIncrementThatIsNotOne) {
    const auto program = [](Simulation& simulation, bool locked) {
        std::mutex mutex;
        int number = 0;
        const auto increment = [&] {
            if (locked)
                mutex.lock();
            const int before = number;
            simulation.Step("between");
            number = before + 1;
            if (locked)
                mutex.unlock();
        };
        std::thread other(increment);
        increment();
        other.join();
        if (number != 2)
            simulation.Fail("lost an increment");
    };
    FindsFault([&](Simulation& simulation) { program(simulation, false); }, "lost an increment");
    RunAll([&](Simulation& simulation) { program(simulation, true); });
}

TEST(AnExplorer, FindsALockThatIsHeldWhileItsHolderWaits) {
    FindsFault(
        [](Simulation&) {
            std::mutex mutex;
            const std::lock_guard<std::mutex> lock(mutex);
            poll(nullptr, 0, 10);
        },
        "holds a lock");
}

TEST(AnExplorer, FindsARecursiveLockThatIsHeldWhileItsHolderWaits) {
    const auto program = [](bool letsGo) {
        std::recursive_mutex mutex;
        std::unique_lock<std::recursive_mutex> outer(mutex);
        std::lock_guard<std::recursive_mutex>{mutex};
        if (letsGo)
            outer.unlock();
        poll(nullptr, 0, 10);
    };
    FindsFault([&](Simulation&) { program(false); }, "waits in poll and holds a lock");
    RunAll([&](Simulation&) { program(true); });
}

TEST(AnExplorer, FindsADescriptorThatIsClosedTwice) {
    FindsFault(
        [](Simulation&) {
            const int number = eventfd(0, 0);
            close(number);
            close(number);
        },
        "closes a descriptor twice");
}

TEST(AnExplorer, TakesTheSameCourseForTheSameSeed) {
    const auto fingerprint = [](std::uint64_t seed) {
        Simulation simulation(seed, false);
        simulation.Run([&] {
            std::mutex mutex;
            std::thread other([&] { TakeInOrder(mutex, *std::make_unique<std::mutex>()); });
            for (int round = 0; round < 20; ++round)
                std::lock_guard<std::mutex>{mutex};
            other.join();
        });
        return simulation.Fingerprint();
    };
    int different = 0;
    for (std::uint64_t seed = 0; seed < SEEDS; ++seed) {
        EXPECT_EQ(fingerprint(seed), fingerprint(seed));
        different += fingerprint(seed) != fingerprint(seed + 1) ? 1 : 0;
    }
    EXPECT_GT(different, 250);
}

TEST(AClock, JumpsToWhatIsWaitedFor) {
    RunAll([](Simulation& simulation) {
        const auto begin = std::chrono::steady_clock::now();
        const int number = eventfd(0, 0);
        pollfd wait{number, POLLIN, 0};
        std::thread other([&] {
            simulation.Sleep(3600 * SECOND);
            eventfd_write(number, 1);
        });
        while (poll(&wait, 1, 60'000) != 1) {
        }
        other.join();
        close(number);
        const auto waited = std::chrono::steady_clock::now() - begin;
        if (waited < std::chrono::seconds(3600) || waited > std::chrono::seconds(3700))
            simulation.Fail("the clock is wrong");
    });
}

} // namespace OrvLab
