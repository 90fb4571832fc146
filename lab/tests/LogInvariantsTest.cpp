// SPDX-License-Identifier: Apache-2.0
// Does the explorer of the log find what it is made for? A log with one fault each, and the same without it.
#include "log/LogOutputs.h"
#include "log/LogProgram.h"
#include "log/SettingsReference.h"
#include "sim/Simulation.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

namespace OrvLab {

namespace {

/// Two records of one thread, of which the log is to have the first, and has what the test has written.
class TheCheckOfALog : public testing::Test {
protected:
    TheCheckOfALog() {
        time = outputs.TimeOfBeginning();
        first = outputs.Add({1, 0, 3, "Source", {}, Text(0, "xx"), true, true, false}).Shown();
        second = outputs.Add({1, 1, 4, "Source", ForeignText("tag"), Text(1, ""), false, true, false}).Shown();
    }

    static ForeignText Text(int number, const std::string& text) {
        return {LogRecordAsked::Mark(1, number) + text + " end"};
    }
    void Write(const std::string& text, const char* file = "log", unsigned mode = 0640) const {
        const std::filesystem::path path = std::filesystem::path(outputs.Folder()) / "logs" / file;
        std::ofstream(path) << text;
        chmod(path.c_str(), mode);
    }
    std::string First() const { return time + " warning [Source] " + first + "\n"; }
    std::string Second() const { return time + " error [Source] " + second + "\n"; }
    void Fails(const char* words) {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        EXPECT_EXIT(outputs.Check(true), testing::ExitedWithCode(Simulation::FAILED), words);
    }

    std::string time;
    Simulation simulation{1, false};
    LogOutputs outputs{simulation, LogPlace()};
    std::string first;
    std::string second;
};

} // namespace

TEST_F(TheCheckOfALog, PassesWhatIsWholeAndInOrder) {
    outputs.Expect("The levels of the log are now info");
    Write(First() + time + " info [GatewayConfig] The levels of the log are now info\n" + Second());
    outputs.Check(true);
}

TEST_F(TheCheckOfALog, FindsARecordThatIsMissing) {
    Write(Second());
    Fails("1 records are missing, 0 are said to be lost and 0 are counted");
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

TEST_F(TheCheckOfALog, FindsARecordWithoutItsTag) {
    Write(First() + time + " error [Source] " + second.substr(5) + "\n");
    Fails("not as it was asked for");
}

TEST_F(TheCheckOfALog, FindsATimeThatIsNotNow) {
    Write("2026-01-02T03:04:05.678Z warning [Source] " + first + "\n");
    Fails("the log says that it is 2026-01-02");
}

TEST_F(TheCheckOfALog, FindsAFileThatWasEndedTooEarly) {
    Write(First(), "log.1");
    Write(Second());
    Fails("a file of the log was ended with");
}

TEST_F(TheCheckOfALog, FindsAFileThatIsTooLong) {
    Write(First() + std::string(16384, 'x'));
    Fails("a file of the log has 16");
}

TEST_F(TheCheckOfALog, FindsAFileThatIsOneTooMany) {
    Write(First());
    Write("", "log.100");
    Fails("a file of the log that nobody wants: log.100");
}

TEST_F(TheCheckOfALog, FindsAFileThatEverybodyMayRead) {
    Write(First(), "log", 0644);
    Fails("too many rights");
}

TEST_F(TheCheckOfALog, FindsALossThatNobodyHasCounted) {
    Write(Second() + time + " warning [Log] 1 record was lost before the previous one (full)\n");
    Fails("1 records are missing, 1 are said to be lost and 0 are counted");
}

TEST_F(TheCheckOfALog, FindsNewsThatAreNotTold) {
    outputs.Expect("The levels of the log are now off");
    Write(First());
    Fails("0 times and not 1: The levels of the log are now off");
}

TEST(AForeignText, IsShownAsFarAsThereIsRoom) {
    Random random(1);
    ForeignText text;
    text.Add("x", 8190);
    for (int count = 0; count < 50; ++count)
        text.AddAny(random, 10, true);
    const LogRecordAsked record{1, 0, 0, "Source", {}, text};
    const std::string shown = record.Shown();
    const std::size_t cut = shown.find(" [cut, ");
    ASSERT_NE(cut, std::string::npos);
    EXPECT_GE(cut, 8190U);
    EXPECT_LE(cut, 8192U);
    EXPECT_EQ(shown.substr(cut), " [cut, " + std::to_string(text.Raw().size()) + " bytes in all]");
}

TEST(AMark, IsFoundWhereverItStands) {
    EXPECT_EQ(LogRecordAsked::Marked("tag: r12.345 x"), std::make_pair(12, 345));
    EXPECT_EQ(LogRecordAsked::Marked("error (r1.2 x"), std::make_pair(1, 2));
    EXPECT_EQ(LogRecordAsked::Marked("error r1.2"), std::make_pair(-1, -1));
}

/// The reference and the settings' own reader have nothing in common but the page that both follow.
TEST(AReferenceOfSettings, HasValuesAndFaultsOfAllKinds) {
    std::size_t faults = 0;
    std::size_t unlisted = 0;
    bool isAnotherPort = false;
    for (std::uint64_t seed = 0; seed < 200; ++seed) {
        Random random(seed);
        const SettingsReference reference(random, seed % 4 == 0);
        faults += reference.Faults().size();
        unlisted += reference.Unlisted();
        isAnotherPort = isAnotherPort || reference.Of("broker.port") == "65535";
    }
    EXPECT_GT(faults, 1000U);
    EXPECT_GT(unlisted, 0U);
    EXPECT_TRUE(isAnotherPort);
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
