// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <string>
#include <system_error>
#include <vector>

namespace PrivateNetwork {

/// A program as a child process, ended with its object and with the test.
class ChildProgram {
public:
    /// @param words the program and its arguments
    /// @param log   the file that its standard error is added to; empty for the test's own
    explicit ChildProgram(std::vector<std::string> words, const std::string& log = {}) {
        std::vector<char*> arguments;
        for (std::string& word : words)
            arguments.push_back(word.data());
        arguments.push_back(nullptr);
        pid = fork();
        if (pid < 0)
            throw std::system_error(errno, std::generic_category(), "cannot start " + words.front());
        if (pid != 0)
            return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (log.empty() || std::freopen(log.c_str(), "a", stderr) != nullptr)
            execvp(arguments[0], arguments.data());
        _exit(127);
    }
    ~ChildProgram() { End(SIGKILL); }
    ChildProgram(const ChildProgram&) = delete;
    ChildProgram& operator=(const ChildProgram&) = delete;

    pid_t Pid() const { return pid; }
    /// @return the exit status, -1 when a signal or an earlier call ended it
    int End(int signal) {
        if (pid <= 0) // -1 would be every process of this user
            return -1;
        kill(pid, signal);
        int status = 0;
        waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

private:
    pid_t pid = -1;
};

} // namespace PrivateNetwork
