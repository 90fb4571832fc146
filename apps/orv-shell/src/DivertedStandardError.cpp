// SPDX-License-Identifier: Apache-2.0
#include "DivertedStandardError.h"

#include <array>
#include <csignal>

#include <fcntl.h>
#include <unistd.h>

namespace OrvShell {

namespace {

// For the signal handler; -1 while nothing is diverted.
int terminal = -1;
int waiting = -1;

/// Copies what is waiting to the terminal. Async-signal-safe.
void Restore() noexcept {
    if (terminal < 0)
        return;
    dup2(terminal, STDERR_FILENO);
    std::array<char, 4096> buffer{};
    for (ssize_t count = 0; (count = read(waiting, buffer.data(), buffer.size())) > 0;) {
        if (write(STDERR_FILENO, buffer.data(), static_cast<std::size_t>(count)) < 0)
            break;
    }
}

// The reason of an abort, an assertion's text say, is on its way through the pipe. Afterwards the process aborts.
void OnAbort(int /*signal*/) noexcept {
    Restore();
}

} // namespace

DivertedStandardError::DivertedStandardError() {
    if (isatty(STDERR_FILENO) != 0)
        Divert();
}

DivertedStandardError::~DivertedStandardError() {
    if (reader < 0)
        return;
    std::signal(SIGABRT, SIG_DFL);
    if (!partial.empty() && write(terminal, partial.data(), partial.size()) < 0)
        partial.clear(); // nobody is there to read it
    Restore();
    close(terminal);
    close(reader);
    terminal = waiting = -1;
}

void DivertedStandardError::Divert() {
    std::array<int, 2> ends{};
    const int kept = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    if (kept < 0)
        return;
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        close(kept);
        return;
    }
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    terminal = kept;
    waiting = reader = ends[0];
    std::signal(SIGABRT, OnAbort);
}

std::vector<std::string> DivertedStandardError::Lines() {
    std::vector<std::string> lines;
    std::array<char, 4096> buffer{};
    ssize_t count = 0;
    while (reader >= 0 && (count = read(reader, buffer.data(), buffer.size())) > 0)
        partial.append(buffer.data(), static_cast<std::size_t>(count));
    for (std::size_t end = partial.find('\n'); end != std::string::npos; end = partial.find('\n')) {
        lines.push_back(partial.substr(0, end));
        partial.erase(0, end + 1);
    }
    return lines;
}

} // namespace OrvShell
