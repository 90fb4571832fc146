// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Input.h"
#include "Shell.h"
#include "signals/Signals.h"

#include <OrvStackSdk/Testing.h>

#include <chrono>
#include <deque>
#include <string>

namespace OrvShell {

/// orv-shell's commands on a simulated gateway, in virtual time: the whole library without a broker. The commands that
/// are about the surroundings are carried out here, the others by the shell. One thread.
class Simulation {
public:
    static constexpr int SUCCESS = 0;
    static constexpr int COMMAND_FAILED = 1;
    static constexpr int USAGE = 2;

    /// @param tickInterval how often to tick; zero for only when told to
    Simulation(Input& source, std::chrono::milliseconds tickInterval);

    /// Runs until the input ends, `quit`, a signal (SIGINT, SIGTERM, SIGHUP, which must be blocked), or, where the
    /// input demands it, a failed command. Prints commands, callbacks and whatever happens on the gateway, with the
    /// virtual time in front. Then stops and says good-bye.
    /// @return the exit status
    int Run();

private:
    bool Step();
    bool AwaitInput();
    void Execute(const std::string& line);
    void AttendToSurroundings(const Statement& statement);
    void Await(const Expectation& expectation);
    bool Fulfilled(const Expectation& expectation);
    void PathBecomes(const std::string& interface, const std::string& fate);
    void LetTimePass();
    void ShowWhatHappened();
    void Show(const char* mark, const std::string& what);
    void Fail(const std::string& message);
    Shell::Clock::time_point Now() const;

    Input& input;
    OrvStackSdk::Testing::Gateway gateway;
    Shell shell;
    OrvSignals::Signals signals;
    std::deque<Callback> happened; // what could be expected, and no expect has asked for
    bool interrupted = false;
    bool failed = false;
};

} // namespace OrvShell
