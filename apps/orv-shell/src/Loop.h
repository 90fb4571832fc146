// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "Input.h"
#include "Shell.h"
#include "signals/Signals.h"

#include <chrono>

namespace OrvShell {

/// The one thread's loop: commands, ticks, callbacks and signals, each in its turn.
class Loop {
public:
    static constexpr int SUCCESS = 0;
    static constexpr int COMMAND_FAILED = 1;
    static constexpr int USAGE = 2;

    /// @param maker makes the client that the commands work on
    /// @param tickInterval how often to tick; zero for only when told to
    Loop(Shell::ClientMaker maker, Input& input, std::chrono::milliseconds tickInterval);

    /// Runs until the input ends, `quit`, SIGINT, SIGTERM or SIGHUP (which must be blocked in every thread), or, where
    /// the input demands it, a failed command. Then stops and says good-bye.
    /// @return the exit status
    int Run();

private:
    using TimePoint = Shell::Clock::time_point;

    bool Start();
    bool Step();
    bool ExecuteNext();
    void Sleep();
    void TickWhenDue();
    void ShowCallbacks();
    void Fail(const std::string& message);
    int TimeoutToNextDeadline() const;

    Input& input;
    const std::chrono::milliseconds tickInterval;
    Shell shell;
    TimePoint nextTick;
    OrvSignals::Signals signals;
    bool executed = false; // a line in the last step: the next one, or what it waits for, may be there
    bool interrupted = false;
    bool failed = false;
};

/// Blocks the signals that end the loop. Call it before there is a second thread.
void BlockEndingSignals();

} // namespace OrvShell
