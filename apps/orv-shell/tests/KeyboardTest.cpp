// SPDX-License-Identifier: Apache-2.0
#include "FakeClient.h"
#include "Loop.h"

#include <gtest/gtest.h>

#include <array>
#include <chrono>
#include <csignal>
#include <cstdlib>

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
        child = forkpty(&terminal, nullptr, nullptr, &size);
        ASSERT_GE(child, 0);
        if (child == 0)
            _exit(RunShell());
        Await("orv> ");
    }

    void TearDown() override {
        if (child > 0 && !ended) {
            kill(child, SIGKILL);
            waitpid(child, nullptr, 0);
        }
        close(terminal);
    }

    static int RunShell() {
        setenv("TERM", "xterm", 1);
        FakeWorld world;
        BlockEndingSignals();
        const std::unique_ptr<Input> input = OpenKeyboard("orv> ");
        return Loop([&] { return std::make_shared<FakeClient>(world); }, *input, 10ms).Run();
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
        int status = -1;
        ended = waitpid(child, &status, WNOHANG) == child || waitpid(child, &status, 0) == child;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

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
