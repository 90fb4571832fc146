// SPDX-License-Identifier: Apache-2.0
// Does the explorer of the log find what it is made for? A log with one fault each, and the same without it.
#include "log/LogOutputs.h"
#include "log/LogProgram.h"
#include "log/SettingsNews.h"
#include "log/SettingsReference.h"
#include "sim/Simulation.h"

#include "config/GatewayConfig.h"

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
    explicit TheCheckOfALog(const LogPlace& place = {}) : outputs(simulation, place) {
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
    void MayTell(const std::string& text, bool isWhole = true) {
        outputs.MayTell({time, LogOutputs::TimeOfNow(), "info", {text}, isWhole});
    }
    std::string News(const std::string& text) const { return time + " info [GatewayConfig] " + text + "\n"; }
    void Fails(const char* words) {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        EXPECT_EXIT(outputs.Check(true), testing::ExitedWithCode(Simulation::FAILED), words);
    }

    std::string time;
    Simulation simulation{1, false};
    LogOutputs outputs;
    std::string first;
    std::string second;
};

/// The same on a disk that is full at times.
class TheCheckOfALogInTrouble : public TheCheckOfALog {
protected:
    TheCheckOfALogInTrouble() : TheCheckOfALog(Troubled()) { outputs.Records(1)[0].mustBeThere = false; }

    static LogPlace Troubled() {
        LogPlace place;
        place.hasTrouble = true;
        return place;
    }
};

} // namespace

TEST_F(TheCheckOfALog, PassesWhatIsWholeAndInOrder) {
    outputs.Expect("The levels of the log are now info");
    MayTell("The levels of the log are now info");
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
    Write(Second() + time + " warning [Log] 1 record was lost before the previous one (" + outputs.Folder() +
          "/logs/log: No space left on device)\n");
    Fails("1 records are missing, 1 are said to be lost and 0 are counted");
}

TEST_F(TheCheckOfALog, FindsNewsThatAreNotTold) {
    outputs.Expect("The levels of the log are now off");
    Write(First());
    Fails("0 times and not 1: The levels of the log are now off");
}

constexpr const char* NOT_CAUSED = "says of its settings what they have not caused";

TEST_F(TheCheckOfALog, FindsNewsOfSettingsThatNothingHasCaused) {
    Write(First() + News("The levels of the log are now info"));
    Fails(NOT_CAUSED);
}

TEST_F(TheCheckOfALog, FindsNewsOfSettingsThatAreToldTwice) {
    MayTell("The levels of the log are now info");
    Write(First() + News("The levels of the log are now info") + News("The levels of the log are now info"));
    Fails(NOT_CAUSED);
}

TEST_F(TheCheckOfALog, FindsNewsOfSettingsThatAreNotOfThatTime) {
    outputs.MayTell({"2026-01-02T03:04:05.678Z", "2026-01-02T03:04:05.999Z", "info", {"The levels"}, false});
    Write(First() + News("The levels of the log are now info"));
    Fails(NOT_CAUSED);
}

TEST_F(TheCheckOfALog, FindsNewsOfSettingsThatAreOfAnotherLevel) {
    MayTell("The levels of the log are now info");
    Write(First() + time + " error [GatewayConfig] The levels of the log are now info\n");
    Fails(NOT_CAUSED);
}

TEST_F(TheCheckOfALog, PassesNewsOfWhichEachIsAnothersAsWell) {
    const std::string now = LogOutputs::TimeOfNow();
    outputs.MayTell({time, now, "info", {"one", "other"}});
    outputs.MayTell({time, now, "info", {"one"}});
    Write(First() + News("one") + News("other"));
    outputs.Check(true);
}

TEST_F(TheCheckOfALog, FindsALossForAReasonThatIsNone) {
    Write(Second() + time + " warning [Log] 1 record was lost before the previous one (a whim)\n");
    Fails("nobody has asked for");
}

TEST_F(TheCheckOfALog, PassesNewsOfWhichTheBeginningIsKnown) {
    MayTell("x.ini:7: [log] file_count", false);
    Write(First() + News("x.ini:7: [log] file_count = \"0\" is not valid"));
    outputs.Check(true);
}

TEST_F(TheCheckOfALogInTrouble, PassesTheBeginningOfEachLineThatMayBeThere) {
    MayTell("The levels of the log are now info");
    const std::string news = News("The levels of the log are now info");
    for (const std::string& line : {First(), Second(), news}) {
        for (std::size_t size = 1; size < line.size() - 1; ++size) {
            EXPECT_TRUE(outputs.IsBeginning(line.substr(0, size))) << line.substr(0, size);
        }
    }
}

TEST_F(TheCheckOfALogInTrouble, FindsALineThatBeginsLikeNone) {
    Write("garbage\n" + First());
    Fails("a line of the log is not whole: garbage");
}

TEST_F(TheCheckOfALogInTrouble, FindsATimeInItsMidstThatIsNone) {
    Write(time.substr(0, 20) + "x\n" + First());
    Fails("a line of the log is not whole");
}

TEST_F(TheCheckOfALogInTrouble, FindsACutTimeThatIsNotNow) {
    Write("2026-01-02T\n" + First());
    Fails("a line of the log is not whole");
}

TEST_F(TheCheckOfALogInTrouble, FindsTheBeginningOfARecordThatNobodyHasAskedFor) {
    Write(time + " warning [Source] other\n" + First());
    Fails("nobody has asked for");
}

TEST_F(TheCheckOfALogInTrouble, FindsTheBeginningOfARecordThatNoLevelAllows) {
    outputs.Records(1)[0].mayBeThere = false;
    Write(time + " warning [Sou\n" + Second());
    Fails("a line of the log is not whole");
}

TEST_F(TheCheckOfALogInTrouble, FindsTheBeginningOfARecordThatIsThereAsWell) {
    Write(First().substr(0, First().size() - 4) + "\n" + First());
    Fails("there twice");
}

TEST_F(TheCheckOfALogInTrouble, FindsTheBeginningOfNewsThatNothingHasCaused) {
    MayTell("The levels of the log are now info");
    Write(First() + News("The levels of the log are now trace").substr(0, 80) + "\n");
    Fails(NOT_CAUSED);
}

TEST_F(TheCheckOfALogInTrouble, FindsTheBeginningOfALossThatIsNone) {
    Write(First() + time + " warning [Log] 1 record was l\n");
    Fails("nobody has asked for");
}

TEST_F(TheCheckOfALogInTrouble, FindsALastLineThatBeginsLikeNone) {
    Write(First() + "garbage");
    Fails("the last line of the log is not whole: garbage");
}

TEST(FaultsOfSettings, AreReportedAsTheSettingsReaderReportsThem) {
    const std::string right = "[log]\nsink = file\nfile = /x\nlevel = info\nfile_count = 7\n";
    for (const std::string& fault :
         {std::string("level = nonsense\n"), std::string("file_max_bytes = 16383\n"), std::string("colour = 1\n"),
          std::string("[nowhere]\n"), std::string("nonsense\n"), std::string("level = info,First=loud\n"),
          std::string("sink = stdout\n"), std::string("sink = stderr\n"), std::string("[broker]\nport = 65536\n"),
          std::string("[broker\n"), std::string("\0\n", 2)}) {
        const auto said = OrvPlatform::ParseGatewayConfig(right + fault, "x.ini").problems;
        const auto known = SettingsNews::Faults("x.ini", right, fault);
        ASSERT_EQ(said.size(), known.size()) << fault;
        for (std::size_t number = 0; number < said.size(); ++number)
            EXPECT_EQ(said[number].rfind(known[number], 0), 0U) << said[number] << "\nbut: " << known[number];
    }
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
