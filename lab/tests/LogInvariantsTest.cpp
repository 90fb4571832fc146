// SPDX-License-Identifier: Apache-2.0
// Does the explorer of the log find what it is made for? A log with one fault each, and the same without it.
#include "log/LogOutputs.h"
#include "log/LogProgram.h"
#include "sim/Simulation.h"

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

constexpr const char* TIME = "2026-01-02T03:04:05.678Z ";

/// Two records of one thread, of which the log is to have the first, and has what the test has written.
class TheCheckOfALog : public testing::Test {
protected:
    TheCheckOfALog() {
        first = outputs.Add({1, 0, 3, "Source", 2, true, true, false}).Text();
        second = outputs.Add({1, 1, 4, "Source", 0, false, true, false}).Text();
    }

    void Write(const std::string& text, const char* file = "log") const {
        std::ofstream(std::filesystem::path(outputs.SettingsFile()).parent_path() / file) << text;
    }
    std::string First() const { return TIME + ("warning [Source] " + first + "\n"); }
    std::string Second() const { return TIME + ("error [Source] tag: " + second + "\n"); }
    void Fails(const char* words) {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        EXPECT_EXIT(outputs.Check(true), testing::ExitedWithCode(Simulation::FAILED), words);
    }

    Simulation simulation{1, false};
    LogOutputs outputs{simulation, false, false};
    std::string first;
    std::string second;
};

} // namespace

TEST_F(TheCheckOfALog, PassesWhatIsWholeAndInOrder) {
    Write(First(), "log.1");
    Write(TIME + std::string("info [GatewayConfig] The levels of the log are now info\n") + Second());
    outputs.Check(true);
}

TEST_F(TheCheckOfALog, FindsARecordThatIsMissing) {
    Write(Second());
    Fails("1 records are missing, and 0 are said to be lost");
}

TEST_F(TheCheckOfALog, FindsARecordThatIsThereTwice) {
    Write(First() + First());
    Fails("there twice");
}

TEST_F(TheCheckOfALog, FindsARecordBehindALaterOne) {
    Write(Second() + First());
    Fails("behind a later one");
}

TEST_F(TheCheckOfALog, FindsALineInWhichTwoRecordsAreMixed) {
    Write(First().substr(0, 50) + First());
    Fails("not as it was asked for");
}

TEST_F(TheCheckOfALog, FindsALineWithoutItsEnd) {
    Write(First() + Second().substr(0, 30));
    Fails("the last line of the log is not whole");
}

TEST_F(TheCheckOfALog, FindsARecordThatNoLevelAllows) {
    outputs.Records(1)[1].mayBeThere = false;
    Write(First() + Second());
    Fails("no level in force allows");
}

TEST(AListOfLevels, HasWhatTheEnvironmentNamesInItsPlace) {
    const LevelList file{3, {{"First", 0}, {"Second", 5}}};
    const LevelList both = file.Below({std::nullopt, {{"Second", 1}}});
    EXPECT_EQ(both.Text(), "warning,First=trace,Second=debug");
    EXPECT_EQ(both.Of("Second"), 1);
    EXPECT_EQ(both.Of("Other"), 3);
    EXPECT_EQ(file.Below({4, {}}).Of("Other"), 4);
}

} // namespace OrvLab
