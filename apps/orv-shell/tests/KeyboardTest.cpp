// SPDX-License-Identifier: Apache-2.0
#include "FakeClient.h"
#include "Loop.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace OrvShell;
using namespace std::chrono_literals;

namespace {

/// The shell on a terminal of its own, with a person at the other end.
class APersonAtTheKeyboard : public testing::Test {
protected:
    void SetUp() override {
        winsize size{24, 200, 0, 0};
        shown.clear();
        ended = false;
        if (orders[0] < 0) {
            ASSERT_EQ(pipe2(orders, O_NONBLOCK | O_CLOEXEC), 0);
        }
        child = forkpty(&terminal, nullptr, nullptr, &size);
        ASSERT_GE(child, 0);
        if (child == 0)
            _exit(RunShell());
        Await("orv> ");
    }

    void TearDown() override {
        close(orders[0]);
        close(orders[1]);
        if (child > 0 && !ended) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        close(terminal);
        unlink(historyFile.c_str());
    }

    int RunShell() const {
        setenv("TERM", "xterm", 1);
        FakeWorld world;
        world.onTick = [this] { WriteLog(); };
        BlockEndingSignals();
        const std::unique_ptr<Input> input = OpenKeyboard("orv> ", historyFile);
        return Loop([&] { return std::make_shared<FakeClient>(world); }, *input, 10ms).Run();
    }

    /// In the shell's process: writes what it has been told to, as the log does, in one piece.
    void WriteLog() const {
        std::array<char, 1024> order{};
        const ssize_t count = read(orders[0], order.data(), order.size());
        if (count <= 0)
            return;
        const ssize_t written = write(STDERR_FILENO, order.data(), static_cast<std::size_t>(count));
        if (written < 0 || order[0] == 'A')
            abort();
    }

    /// Has the library log this line; one that begins with A is the last before an abort.
    void Log(const std::string& line) {
        ASSERT_EQ(write(orders[1], (line + "\n").data(), line.size() + 1), static_cast<ssize_t>(line.size() + 1));
    }

    void Type(const std::string& keys) {
        shown.clear();
        ASSERT_EQ(write(terminal, keys.data(), keys.size()), static_cast<ssize_t>(keys.size()));
    }

    /// Until the terminal has shown the text since the last Type.
    void Await(const std::string& text) {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (shown.find(text) == std::string::npos) {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << "not shown: " << text << "\nbut: " << shown;
            ASSERT_TRUE(ReadMore()) << "ended before it showed: " << text << "\nbut: " << shown;
        }
    }

    bool ReadMore() {
        pollfd source{terminal, POLLIN, 0};
        if (poll(&source, 1, 100) <= 0)
            return true;
        std::array<char, 1024> buffer{};
        const ssize_t count = read(terminal, buffer.data(), buffer.size());
        if (count <= 0)
            return false; // EIO once the other end is closed
        shown.append(buffer.data(), static_cast<std::size_t>(count));
        return true;
    }

    int ExitStatus() {
        const auto end = std::chrono::steady_clock::now() + 20s;
        while (ReadMore() && std::chrono::steady_clock::now() < end) {
        }
        if (std::chrono::steady_clock::now() >= end)
            kill(child, SIGKILL);
        int status = -1;
        ended = waitpid(child, &status, 0) == child;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    const std::string historyFile = testing::TempDir() + "orv-history-" + std::to_string(getpid());
    int orders[2] = {-1, -1};
    int terminal = -1;
    pid_t child = -1;
    bool ended = false;
    std::string shown;
};

} // namespace

TEST_F(APersonAtTheKeyboard, SeesCallbacksWithoutATornLine) {
    Type("init alarm\n");
    Await("< OnInitConfirmation ACK\r\norv> ");
    Type("wait 1ms\n");
    Await("orv> ");
}

TEST_F(APersonAtTheKeyboard, HasWordsCompleted) {
    Type("event FAI\t");
    Await("LURE"); // the rest of the word
}

TEST_F(APersonAtTheKeyboard, CarriesOnAfterAMistake) {
    Type("stauts ready\n");
    Await("no such command: stauts");
    Type("status ready\n");
    Await("orv> ");
    Type("quit\n");
    EXPECT_EQ(ExitStatus(), Loop::COMMAND_FAILED);
}

TEST_F(APersonAtTheKeyboard, EndsWithTheEndOfInput) {
    Type("stop\n");
    Await("orv> ");
    Type("\x04");
    EXPECT_EQ(ExitStatus(), Loop::SUCCESS);
}

TEST_F(APersonAtTheKeyboard, EndsWithControlC) {
    Type("wait 1h\n");
    Await("orv> ");
    Type("\x03");
    EXPECT_EQ(ExitStatus(), Loop::SUCCESS);
}

TEST_F(APersonAtTheKeyboard, DropsAHalfTypedLineWithControlC) {
    Type("conn-status half");
    Await("conn-status half");
    Type("\x03");
    Await("orv> ");
    Type("conn-status whole\n");
    Await("\r\norv> ");
    EXPECT_EQ(shown.find("too many"), std::string::npos) << shown;
    EXPECT_EQ(shown.find("half"), std::string::npos) << shown;
    Type("\x03");
    EXPECT_EQ(ExitStatus(), Loop::SUCCESS);
}

TEST_F(APersonAtTheKeyboard, KeepsAHalfTypedLineWhenALogLineComes) {
    Type("conn-status half");
    Await("conn-status half");
    shown.clear();
    Log("a line of the log");
    Await("a line of the log\r\norv> conn-status half");
    Type("-and-half\n");
    Await("orv> ");
    EXPECT_EQ(shown.find("no such"), std::string::npos) << shown;
}

TEST_F(APersonAtTheKeyboard, SeesTheLogWhileACommandWaits) {
    Type("wait 1h\n");
    Await("orv> ");
    Log("a line of the log");
    Await("a line of the log\r\n");
}

TEST_F(APersonAtTheKeyboard, SeesWhatWasSaidBeforeAnAbort) {
    Log("A last word");
    Await("A last word");
    EXPECT_EQ(ExitStatus(), -1);
}

TEST_F(APersonAtTheKeyboard, FindsTheLinesOfTheLastSession) {
    Type("conn-status remembered\n");
    Await("orv> ");
    Type("\x04");
    EXPECT_EQ(ExitStatus(), Loop::SUCCESS);
    close(terminal);
    SetUp();
    Type("\x10"); // the previous line
    Await("conn-status remembered");
}
