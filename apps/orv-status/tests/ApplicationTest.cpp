// SPDX-License-Identifier: Apache-2.0
#include "Application.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace OrvStatus {
namespace {

using State = ApplicationView::State;

const std::string STATUS_FILE =
    R"({"version":1,"name":"alarm","pid":42,"process_start":7,"running":true,"started":"S",)"
    R"("written_monotonic":100.0,"cloud":{"state":"connected","path":"cellular","interface":"wwan0","family":"IPv6",)"
    R"("since":"C","since_monotonic":50.5,"reason":"why","last_failure":""},)"
    R"("route":{"ethernet_on_probation":true,"no_fail_over":"N","last_move":{"time":"M","from":"ethernet",)"
    R"("to":"cellular","reason":"because"}},"longest_tick_us":2000,)"
    R"("counters":{"fail_overs":3,"broker_losses":null}})";

bool Alive(long pid, double start) {
    return pid == 42 && start == 7;
}
bool Dead(long, double) {
    return false;
}
std::string With(const std::string& what, const std::string& instead) {
    std::string text = STATUS_FILE;
    return text.replace(text.find(what), what.size(), instead);
}

TEST(AStatusFile, IsRead) {
    const ApplicationView view = ReadApplication(STATUS_FILE, 101, Alive);
    EXPECT_EQ(view.state, State::RUNNING);
    EXPECT_EQ(view.name, "alarm");
    EXPECT_EQ(view.cloudState, "connected");
    EXPECT_EQ(view.cloudPath, "cellular");
    EXPECT_EQ(view.cloudFamily, "IPv6");
    EXPECT_EQ(view.cloudSince.monotonic, 50.5);
    EXPECT_EQ(view.lastMoveReason, "because");
    EXPECT_TRUE(view.probation);
    EXPECT_EQ(view.noFailOver, "N");
    EXPECT_EQ(view.longestTickUs, 2000);
    ASSERT_EQ(view.counters.size(), 1U) << "what is not known is left out";
    EXPECT_EQ(view.counters[0].name, "fail_overs");
}

TEST(AStatusFile, OfAProcessThatIsGoneCountsForNothing) {
    EXPECT_EQ(ReadApplication(STATUS_FILE, 101, Dead).state, State::GONE);
}

TEST(AStatusFile, SaysThatItsApplicationHasEnded) {
    EXPECT_EQ(ReadApplication(With("\"running\":true", "\"running\":false"), 101, Alive).state, State::ENDED);
}

TEST(AStatusFile, ThatHasNotBeenWrittenForHalfAMinuteIsOfAStuckApplication) {
    EXPECT_EQ(ReadApplication(STATUS_FILE, 130, Alive).state, State::RUNNING);
    EXPECT_EQ(ReadApplication(STATUS_FILE, 130.1, Alive).state, State::STUCK);
    EXPECT_EQ(ReadApplication(STATUS_FILE, 99.9, Alive).state, State::RUNNING) << "written after the clock was read";
    EXPECT_EQ(ReadApplication(STATUS_FILE, 50, Alive).state, State::STUCK) << "from before the machine was booted";
}

TEST(AStatusFile, ThatIsNoneOfOursIsUnreadable) {
    for (const std::string& text :
         {std::string(), std::string("null"), std::string("[1]"), std::string("{}"), STATUS_FILE.substr(0, 100),
          With("\"version\":1", "\"version\":2"), With("\"state\":\"connected\"", "\"state\":\"well\""),
          With("\"path\":\"cellular\"", "\"path\":7"), With("\"cloud\":{", "\"cloud\":[{"), std::string(70000, ' '),
          std::string(60000, '['), std::string("{\"version\":1}")}) {
        const ApplicationView view = ReadApplication(text, 101, Alive);
        EXPECT_EQ(view.state, State::UNREADABLE) << text.substr(0, 80);
        EXPECT_NE(view.reason, "");
    }
}

TEST(AStatusFile, NeedNotNameAFamily) {
    EXPECT_EQ(ReadApplication(With(R"("family":"IPv6",)", ""), 101, Alive).cloudFamily, "");
}

TEST(AStatusFile, SteersNoTerminal) {
    const ApplicationView view =
        ReadApplication(With("\"reason\":\"why\"", "\"reason\":\"\\u001b[2J\\n\""), 101, Alive);
    EXPECT_EQ(view.cloudReason, "\\x1b[2J\\x0a");
}

TEST(AProcess, IsThereWhenItsNumberAndItsBeginAreRight) {
    std::ifstream file("/proc/self/stat");
    std::string text;
    std::getline(file, text);
    text = text.substr(text.rfind(')') + 2);
    for (int field = 3; field < 22; ++field)
        text = text.substr(text.find(' ') + 1);
    const double start = std::stod(text);
    EXPECT_TRUE(IsThere(getpid(), start));
    EXPECT_FALSE(IsThere(getpid(), start + 1)) << "another process has got the number";
}

TEST(AProcess, IsNotThereWhenItHasEnded) {
    const pid_t child = fork();
    if (child == 0)
        _exit(0);
    ASSERT_EQ(waitpid(child, nullptr, 0), child);
    EXPECT_FALSE(IsThere(child, 0));
}

class AWatchedFile : public testing::Test {
protected:
    AWatchedFile() { std::filesystem::create_directories(folder); }
    ~AWatchedFile() override { std::filesystem::remove_all(folder); }
    State Read() const { return ApplicationWatch(path).Read(101).state; }

    void IsReplaced() const {
        std::ofstream(folder + "/another") << "text";
        std::filesystem::rename(folder + "/another", path);
    }

    const std::string folder = testing::TempDir() + "orv-status-" + std::to_string(getpid());
    const std::string path = folder + "/status.json";
};

TEST_F(AWatchedFile, MayBeAbsent) {
    EXPECT_EQ(Read(), State::ABSENT);
    EXPECT_EQ(ApplicationWatch("/nowhere/at/all").Read(101).state, State::ABSENT);
}

TEST_F(AWatchedFile, HoldsNobodyUpWhateverItIs) {
    ASSERT_EQ(mkfifo(path.c_str(), 0600), 0);
    EXPECT_EQ(Read(), State::UNREADABLE);
    std::filesystem::remove(path);
    std::filesystem::create_directory(path);
    EXPECT_EQ(Read(), State::UNREADABLE);
}

TEST_F(AWatchedFile, TellsWhenItIsReplaced) {
    ApplicationWatch watch(path);
    if (watch.Descriptor() < 0) // then who follows the file looks each second
        GTEST_SKIP() << "this user has no inotify instance left (fs.inotify.max_user_instances)";
    EXPECT_FALSE(watch.Changed());
    std::ofstream(folder + "/another") << "text";
    EXPECT_FALSE(watch.Changed());
    std::filesystem::rename(folder + "/another", path);
    EXPECT_TRUE(watch.Changed());
    EXPECT_FALSE(watch.Changed());
}

TEST_F(AWatchedFile, TellsOfItsFolderThatIsRemovedAndMadeAnew) {
    ApplicationWatch watch(path);
    if (watch.Descriptor() < 0)
        GTEST_SKIP() << "this user has no inotify instance left (fs.inotify.max_user_instances)";
    std::filesystem::remove_all(folder);
    EXPECT_TRUE(watch.Changed());
    EXPECT_FALSE(watch.Changed()) << "there is no folder yet";
    std::filesystem::create_directories(folder);
    EXPECT_TRUE(watch.Changed()) << "the file may have come with its folder";
    IsReplaced();
    EXPECT_TRUE(watch.Changed());
    EXPECT_FALSE(watch.Changed());
}

TEST_F(AWatchedFile, TellsInTheFolderThatHasTakenThePlaceOfOneThatWasRenamed) {
    ApplicationWatch watch(path);
    if (watch.Descriptor() < 0)
        GTEST_SKIP() << "this user has no inotify instance left (fs.inotify.max_user_instances)";
    const std::string renamed = folder + "-renamed";
    std::filesystem::rename(folder, renamed);
    std::filesystem::create_directories(folder);
    EXPECT_TRUE(watch.Changed());
    EXPECT_FALSE(watch.Changed());
    std::ofstream(renamed + "/status.json") << "text";
    EXPECT_FALSE(watch.Changed()) << "it is another file";
    std::filesystem::remove_all(renamed);
    EXPECT_FALSE(watch.Changed());
    IsReplaced();
    EXPECT_TRUE(watch.Changed());
}

TEST_F(AWatchedFile, TellsOfAFolderThatWasNotThereWhenTheWatchBegan) {
    std::filesystem::remove_all(folder);
    ApplicationWatch watch(path);
    if (watch.Descriptor() < 0)
        GTEST_SKIP() << "this user has no inotify instance left (fs.inotify.max_user_instances)";
    EXPECT_FALSE(watch.Changed());
    std::filesystem::create_directories(folder);
    EXPECT_TRUE(watch.Changed());
    IsReplaced();
    EXPECT_TRUE(watch.Changed());
}

} // namespace
} // namespace OrvStatus
