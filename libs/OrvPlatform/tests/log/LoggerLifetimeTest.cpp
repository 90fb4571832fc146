// SPDX-License-Identifier: Apache-2.0
// Many threads, forked children, and objects that log when they are destroyed.
#include "CommonUtils/Logger.h"
#include "quillogger/LogWrapper.h"
#include "support/LoggerFixture.h"
#include "support/Pattern.h"

#include <atomic>
#include <dlfcn.h>
#include <pthread.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// A sanitizer's own locks may be held by a thread that the child does not have: AddressSanitizer's allocator, and the
// record that ThreadSanitizer keeps of each lock and of each function that is called once.
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORV_ALLOCATOR_IS_LOST_IN_A_FORK 1
#endif
#if __has_feature(thread_sanitizer)
#define ORV_LOCKS_ARE_LOST_IN_A_FORK 1
#endif
#endif

// A forked child ends without the threads that it does not have.
extern "C" const char* __tsan_default_options();
extern "C" const char* __tsan_default_options() { // NOLINT(bugprone-reserved-identifier): ThreadSanitizer's name
    return "report_thread_leaks=0";
}

namespace {

std::atomic<bool> keysTakeTime{false};
std::atomic<bool> someoneWaitsForAKey{false};

} // namespace

#ifndef ORV_LOCKS_ARE_LOST_IN_A_FORK // ThreadSanitizer makes a key before it can stand any code of ours
extern "C" int pthread_key_create(pthread_key_t* key, void (*release)(void*)) noexcept {
    someoneWaitsForAKey = keysTakeTime.load();
    while (keysTakeTime)
        std::this_thread::yield();
    return reinterpret_cast<int (*)(pthread_key_t*, void (*)(void*))>(dlsym(RTLD_NEXT, "pthread_key_create"))(key,
                                                                                                              release);
}
#endif

namespace {

using CommonUtils::Logger;
using OrvPlatform::Testing::ALogger;
using OrvPlatform::Testing::Ended;
using OrvPlatform::Testing::RunInChild;
using OrvPlatform::Testing::TemporaryFolder;
using quillogger::LogWrapper;
using Lines = std::vector<std::string>;

struct LogsWhenDestroyed {
    explicit LogsWhenDestroyed(const char* what) : text(what) {}
    ~LogsWhenDestroyed() { Logger("Late", 0).Info() << text; }
    LogsWhenDestroyed(const LogsWhenDestroyed&) = delete;
    LogsWhenDestroyed& operator=(const LogsWhenDestroyed&) = delete;
    const char* text;
};

TEST_F(ALogger, WorksWhileStaticObjectsAreDestroyed) {
    EXPECT_EQ(Logged([] {
                  static const LogsWhenDestroyed beforeTheLog("made before the log");
                  static const Logger logger("Static", 0);
                  Logger("L", 0).Info() << "in main";
                  static const LogsWhenDestroyed afterTheLog("made after the log");
              }),
              (Lines{"info [L] in main", "info [Late] made after the log", "info [Late] made before the log"}));
}

TEST_F(ALogger, WorksForTheFirstTimeWhileStaticObjectsAreDestroyed) {
    EXPECT_EQ(Logged([] { static const LogsWhenDestroyed object("first words"); }), Lines{"info [Late] first words"});
}

TEST_F(ALogger, WorksWhileAThreadEnds) {
    EXPECT_EQ(Logged([] {
                  std::thread([] {
                      thread_local const LogsWhenDestroyed before("made before the thread's first record");
                      static_cast<void>(before.text);
                      Logger("L", 0).Info() << "in the thread";
                      thread_local const LogsWhenDestroyed after("made after it");
                      static_cast<void>(after.text);
                  }).join();
              }),
              (Lines{"info [L] in the thread", "info [Late] made after it",
                     "info [Late] made before the thread's first record"}));
}

TEST_F(ALogger, MayBeUsedByAllThreadsAtOnce) {
    const Lines lines = Logged([] {
        Logger shared("Shared", 0);
        std::vector<std::thread> threads;
        for (int thread = 0; thread < 4; ++thread)
            threads.emplace_back([thread, &shared] {
                Logger own("Own", 0);
                for (int i = 0; i < 250; ++i) {
                    shared.Info() << thread << ' ' << i;
                    own.Debug("Tag") << thread << ' ' << i;
                    LogWrapper::Log(3, false, "x/Wrapped.cpp", i, "f()", "%d", thread);
                }
            });
        for (std::thread& thread : threads)
            thread.join();
    });
    EXPECT_EQ(lines.size(), 3000U);
    const OrvTest::Pattern whole(
        R"(info \[Shared\] \d \d+|debug \[Own\] Tag: \d \d+|warning \[Wrapped:\d+\] f\(\): \d)");
    for (const std::string& line : lines)
        ASSERT_TRUE(whole.Matches(line)) << line;
}

TEST_F(ALogger, WorksInAChildThatIsForkedDuringAnotherThreadsFirstRecord) {
#if defined(ORV_ALLOCATOR_IS_LOST_IN_A_FORK) || defined(ORV_LOCKS_ARE_LOST_IN_A_FORK)
    GTEST_SKIP() << "the sanitizer does not survive such a fork";
#endif
    for (int attempt = 0; attempt < 30; ++attempt) {
        const Lines lines = Logged([] {
            std::thread other([] { Logger("L", 0).Debug() << "first"; });
            const pid_t child = ::fork();
            if (child == 0) {
                ::alarm(20);
                Logger("L", 0).Info() << "from the child";
                ::_exit(0);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            if (status != 0)
                Logger("L", 0).Error() << "child ended with " << status;
            other.join();
        });
        for (const std::string& line : lines)
            ASSERT_NE(line.rfind("error", 0), 0U) << line;
    }
}

TEST_F(ALogger, WorksInAChildThatIsForkedWhileAnotherThreadsFirstRecordWaitsForAKey) {
#ifdef ORV_LOCKS_ARE_LOST_IN_A_FORK
    GTEST_SKIP() << "the sanitizer does not survive such a fork";
#endif
    EXPECT_EQ(Logged([] {
                  keysTakeTime = true;
                  std::atomic<bool> isWritten{false};
                  std::thread other([&isWritten] {
                      Logger("L", 0).Debug() << "first";
                      isWritten = true;
                  });
                  while (!someoneWaitsForAKey && !isWritten)
                      std::this_thread::yield();
                  const pid_t child = ::fork();
                  if (child == 0) {
                      keysTakeTime = false;
                      ::alarm(5);
                      Logger("L", 0).Info() << "from the child";
                      ::_exit(0);
                  }
                  int status = 0;
                  ::waitpid(child, &status, 0);
                  keysTakeTime = false;
                  other.join();
                  Logger("L", 0).Info() << "child ended with " << status;
              }),
              (Lines{"debug [L] first", "info [L] from the child", "info [L] child ended with 0"}));
}

TEST_F(ALogger, WorksInAChildThatIsForkedWhileAnotherThreadReadsTheSettings) {
#ifdef ORV_LOCKS_ARE_LOST_IN_A_FORK
    GTEST_SKIP() << "the sanitizer does not survive such a fork";
#endif
    const TemporaryFolder folder;
    std::string longFile;
    for (int line = 0; line < 30'000; ++line)
        longFile += "# a comment that takes its time\n";
    const std::string config = folder.Write("gateway.ini", longFile);
    const Ended ended = RunInChild({{"ORV_GATEWAY_CONFIG", config}}, [] {
        std::atomic<bool> begun{false};
        std::thread other([&begun] {
            begun = true;
            Logger("L", 0).Debug() << "first";
        });
        while (!begun)
            std::this_thread::yield();
        const pid_t child = ::fork();
        if (child == 0) {
            ::alarm(20);
            Logger("L", 0).Error() << "from the child";
            ::_exit(0);
        }
        ::waitpid(child, nullptr, 0);
        other.join();
    });
    EXPECT_EQ(ended.Lines(), Lines{"error [L] from the child"});
}

TEST_F(ALogger, WorksInAForkedChildWhateverTheOtherThreadsWereDoing) {
#ifdef ORV_LOCKS_ARE_LOST_IN_A_FORK
    GTEST_SKIP() << "the sanitizer does not survive such a fork";
#endif
    const Lines lines = Logged([] {
        Logger log("L", 0);
        std::atomic<bool> done{false};
        std::thread other([&log, &done] {
            while (!done)
                log.Debug() << "noise";
        });
        for (int i = 0; i < 20; ++i) {
            const pid_t child = ::fork();
            if (child == 0) {
                ::alarm(20);
                log.Info() << "from child " << i;
                ::_exit(0);
            }
            int status = 0;
            ::waitpid(child, &status, 0);
            if (status != 0)
                log.Error() << "child ended with " << status;
        }
        done = true;
        other.join();
    });
    int children = 0;
    for (const std::string& line : lines) {
        children += line.rfind("info [L] from child ", 0) == 0 ? 1 : 0;
        EXPECT_NE(line.rfind("error", 0), 0U) << line;
    }
    EXPECT_EQ(children, 20);
}

} // namespace
