// SPDX-License-Identifier: Apache-2.0
// The levels are read anew while the program runs.
#include "CommonUtils/Logger.h"
#include "OrvPlatform/Settings.h"
#include "log/LogLevelsInForce.h"
#include "quillogger/LogWrapper.h"
#include "support/ChildProcess.h"
#include "support/CountedNew.h"

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <thread>
#include <vector>

namespace {

using CommonUtils::Logger;
using OrvPlatform::ReloadLogLevels;
using OrvPlatform::Testing::Ended;
using OrvPlatform::Testing::RunInChild;
using OrvPlatform::Testing::TemporaryFolder;
using quillogger::LogWrapper;
using Lines = std::vector<std::string>;

/// A file of settings that changes, and what a process logs that reads it again.
class LevelsThatChange : public testing::Test {
protected:
    void Put(const std::string& text) const { static_cast<void>(folder.Write("gateway.ini", text)); }
    void PutLevel(const std::string& level) const { Put("[log]\nlevel = " + level + "\n"); }

    Lines Logged(const std::function<void()>& body) const {
        auto environment = variables;
        environment.emplace("ORV_GATEWAY_CONFIG", file);
        const Ended ended = RunInChild(environment, [&body] {
            const Logger first("First", 0); // the settings of the start are read
            body();
        });
        EXPECT_EQ(ended.exitStatus, 0) << "signal " << ended.signal;
        return ended.Lines();
    }

    const TemporaryFolder folder;
    const std::string file = folder.Path("gateway.ini");
    std::map<std::string, std::string> variables;
};

void LogAllLevels(Logger& logger) {
    logger.Trace() << "trace";
    logger.Debug() << "debug";
    logger.Warning() << "warning";
    logger.Error() << "error";
}

void MustFail() { // in the child
    if (ReloadLogLevels())
        std::exit(1);
}

void AtOnce(const std::function<void()>& one, const std::function<void()>& other) {
    std::atomic<int> arrived{0};
    const auto meet = [&arrived] {
        ++arrived;
        while (arrived < 2)
            std::this_thread::yield();
    };
    std::thread thread([&] {
        meet();
        one();
    });
    meet();
    other();
    thread.join();
}

TEST_F(LevelsThatChange, ApplyToLoggersThatExist) {
    PutLevel("error");
    EXPECT_EQ(
        Logged([this] {
            Logger logger("L", 0);
            LogAllLevels(logger);
            PutLevel("debug");
            ReloadLogLevels();
            LogAllLevels(logger);
            PutLevel("warning");
            ReloadLogLevels();
            LogAllLevels(logger);
        }),
        (Lines{"error [L] error", "info [GatewayConfig] The levels of the log are now debug", "debug [L] debug",
               "warning [L] warning", "error [L] error", "info [GatewayConfig] The levels of the log are now warning",
               "warning [L] warning", "error [L] error"}));
}

TEST_F(LevelsThatChange, ApplyToOneLoggerByItsName) {
    PutLevel("warning");
    EXPECT_EQ(Logged([this] {
                  Logger route("OrvRoute", 0);
                  Logger other("Other", 0);
                  PutLevel("warning,OrvRoute=debug");
                  ReloadLogLevels();
                  route.Debug() << "a change of the route";
                  other.Debug() << "of no interest";
                  LogWrapper::Log(1, false, "x/OrvRoute.cpp", 7, "f()", "printed");
                  LogWrapper::Log(1, false, "x/Other.cpp", 7, "f()", "printed");
              }),
              (Lines{"debug [OrvRoute] a change of the route", "debug [OrvRoute:7] f(): printed"}));
}

TEST_F(LevelsThatChange, NeverLowerWhatALoggerWasMadeWith) {
    PutLevel("error");
    EXPECT_EQ(Logged([this] {
                  Logger logger("L", 3);
                  PutLevel("trace,GatewayConfig=off");
                  ReloadLogLevels();
                  LogAllLevels(logger);
              }),
              (Lines{"warning [L] warning", "error [L] error"}));
}

TEST_F(LevelsThatChange, ApplyToLoggersThatAreMadeLater) {
    PutLevel("error");
    EXPECT_EQ(Logged([this] {
                  PutLevel("warning,GatewayConfig=off");
                  ReloadLogLevels();
                  Logger logger("L", 0);
                  LogAllLevels(logger);
              }),
              (Lines{"warning [L] warning", "error [L] error"}));
}

TEST_F(LevelsThatChange, AreTheDefaultWhereTheFileNamesNoneAnyMore) {
    PutLevel("error");
    EXPECT_EQ(Logged([this] {
                  Put("");
                  ReloadLogLevels();
              }),
              Lines{"info [GatewayConfig] The levels of the log are now info"});
}

TEST_F(LevelsThatChange, AreNotMentionedWhenTheyAreTheSame) {
    PutLevel("info");
    EXPECT_EQ(Logged([] {
                  if (!ReloadLogLevels())
                      std::exit(1);
              }),
              Lines{});
}

TEST_F(LevelsThatChange, LoseAgainstTheEnvironment) {
    variables["ORV_LOG_LEVEL"] = "error,L=debug";
    PutLevel("warning");
    EXPECT_EQ(Logged([this] {
                  Logger logger("L", 0);
                  PutLevel("trace,M=trace,L=off");
                  ReloadLogLevels();
                  logger.Debug() << "named in the environment";
                  Logger("M", 0).Trace() << "named in the file only";
                  Logger("N", 0).Warning() << "not named";
              }),
              (Lines{"debug [L] named in the environment", "trace [M] named in the file only"}));
}

TEST_F(LevelsThatChange, StayWhenTheFileIsAtFault) {
    PutLevel("warning");
    const std::string kept =
        "error [GatewayConfig] The levels of the log stay as they were, warning, because of what is "
        "wrong with " +
        file + ". Mend it (orv-config-check tells when it is right) and read it anew";
    EXPECT_EQ(
        Logged([this] {
            Logger logger("L", 0);
            Put("[log]\nlevel = loud\n");
            MustFail();
            Put("[log]\nlevel = trace\nsnk = file\n");
            MustFail();
            std::filesystem::remove(file);
            MustFail();
            LogAllLevels(logger);
        }),
        (Lines{"error [GatewayConfig] " + file +
                   ":2: [log] level = \"loud\" is not valid, warning stays in force. Valid: trace, debug, info, "
                   "warning, error, critical or off (or 0 to 6), and name=level for a single logger, separated by "
                   "commas: info,OrvRoute=trace",
               kept,
               "error [GatewayConfig] " + file +
                   ":3: [log] has no such key, ignored; did you mean \"sink\"? Valid: sink, level, file, "
                   "file_max_bytes, file_count",
               kept,
               "error [GatewayConfig] " + file +
                   ": cannot be read (No such file or directory); the settings stay as they were. Name a readable "
                   "file in ORV_GATEWAY_CONFIG, or unset it to use /etc/orv/gateway.ini",
               kept, "warning [L] warning", "error [L] error"}));
}

TEST_F(LevelsThatChange, TellFaultsOnStandardErrorWhereTheLogIsOff) {
    PutLevel("off");
    const Lines lines = Logged([this] {
        PutLevel("loud");
        ReloadLogLevels();
    });
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(lines[0].rfind(file + ":2: [log] level = \"loud\" is not valid, off stays in force", 0), 0U) << lines[0];
    EXPECT_EQ(lines[1].rfind("The levels of the log stay as they were, off", 0), 0U) << lines[1];
}

TEST_F(LevelsThatChange, LeaveARecordThatIsOffWithoutAnAllocation) {
    PutLevel("debug,GatewayConfig=off");
    EXPECT_EQ(Logged([this] {
                  Logger logger("L", 0);
                  PutLevel("info,GatewayConfig=off");
                  ReloadLogLevels();
                  const std::size_t before = OrvTest::Allocations();
                  for (int i = 0; i < 100; ++i)
                      logger.Debug() << "off";
                  const std::size_t after = OrvTest::Allocations();
                  logger.Info() << "allocations " << after - before;
              }),
              Lines{"info [L] allocations 0"});
}

TEST_F(LevelsThatChange, AreKeptOnceHoweverOftenTheyComeAndGo) {
    EXPECT_EQ(Logged([] {
                  OrvPlatform::LogLevels debug;
                  debug.level = OrvPlatform::LogLevelFrom(1);
                  OrvPlatform::PutLogLevelsInForce(debug);
                  const auto* const first = &OrvPlatform::LogLevelsInForce();
                  OrvPlatform::PutLogLevelsInForce({});
                  OrvPlatform::PutLogLevelsInForce(debug);
                  EXPECT_EQ(&OrvPlatform::LogLevelsInForce(), first);
                  std::exit(HasFailure() ? 1 : 0);
              }),
              Lines{});
}

TEST_F(LevelsThatChange, MayChangeWhileThreadsLog) {
    PutLevel("info,GatewayConfig=off");
    const Lines lines = Logged([this] {
        std::atomic<bool> done{false};
        std::vector<std::thread> threads;
        Logger shared("Shared", 0);
        for (int thread = 0; thread < 3; ++thread)
            threads.emplace_back([&shared, &done] {
                while (!done) {
                    shared.Debug() << "now and then";
                    LogWrapper::Log(0, false, "x/Wrapped.cpp", 1, "f()", "never");
                }
            });
        for (int i = 0; i < 20; ++i) {
            PutLevel(i % 2 == 0 ? "off,Shared=debug" : "off");
            ReloadLogLevels();
        }
        done = true;
        for (std::thread& thread : threads)
            thread.join();
        shared.Error() << "off in the end";
    });
    for (const std::string& line : lines)
        ASSERT_EQ(line, "debug [Shared] now and then");
}

TEST_F(LevelsThatChange, AreTheSameForAllLoggersWhenTwoThreadsChangedThemAtOnce) {
    EXPECT_EQ(Logged([] {
                  OrvPlatform::LogLevels quiet;
                  quiet.level = OrvPlatform::LogLevel::ERROR;
                  OrvPlatform::LogLevels loud;
                  loud.level = OrvPlatform::LogLevel::DEBUG;
                  for (int round = 0; round < 500 && !HasFailure(); ++round) {
                      OrvPlatform::PutLogLevelsInForce(quiet);
                      const OrvPlatform::LogThreshold foundQuiet("Quiet", OrvPlatform::LogLevel::TRACE);
                      OrvPlatform::PutLogLevelsInForce(loud);
                      const OrvPlatform::LogThreshold foundLoud("Loud", OrvPlatform::LogLevel::TRACE);
                      AtOnce([&quiet] { OrvPlatform::PutLogLevelsInForce(quiet); },
                             [&loud] { OrvPlatform::PutLogLevelsInForce(loud); });
                      const OrvPlatform::LogLevel expected = OrvPlatform::LogLevelsInForce().level;
                      EXPECT_EQ(foundQuiet.Of("Quiet"), expected) << "round " << round;
                      EXPECT_EQ(foundLoud.Of("Loud"), expected) << "round " << round;
                  }
                  std::exit(HasFailure() ? 1 : 0);
              }),
              Lines{});
}

} // namespace
