// SPDX-License-Identifier: Apache-2.0
#include "Loop.h"

#include "CommandError.h"
#include "Words.h"

#include <algorithm>
#include <array>
#include <csignal>
#include <ctime>
#include <iostream>
#include <limits>

#include <poll.h>

namespace OrvShell {

namespace {

using std::chrono::milliseconds;
using std::chrono::system_clock;

constexpr std::initializer_list<int> ENDING_SIGNALS{SIGINT, SIGTERM, SIGHUP};

std::string TimeStamp(system_clock::time_point time) {
    const std::time_t seconds = system_clock::to_time_t(time);
    const auto fraction = std::chrono::duration_cast<milliseconds>(time.time_since_epoch()).count() % 1000;
    std::tm utc{}; // as in the log
    gmtime_r(&seconds, &utc);
    std::array<char, 32> text{};
    const std::size_t length = std::strftime(text.data(), text.size(), "%H:%M:%S", &utc);
    const std::string digits = std::to_string(1000 + fraction).substr(1);
    return std::string(text.data(), length) + '.' + digits + 'Z';
}

} // namespace

void BlockEndingSignals() {
    OrvSignals::Block(ENDING_SIGNALS);
}

Loop::Loop(Shell::ClientMaker maker, Input& source, milliseconds interval)
    : input(source),
      tickInterval(interval),
      shell(std::move(maker), [this](const std::string& text) { input.Show(text); }),
      nextTick(Shell::Clock::now() + interval),
      signals(ENDING_SIGNALS) {}

int Loop::Run() {
    if (Start()) {
        while (Step())
            Sleep();
        ShowCallbacks();
        shell.Finish();
        ShowCallbacks();
        input.ShowLog();
    }
    if (interrupted && input.StopsAtFailure())
        Fail("interrupted");
    return failed ? COMMAND_FAILED : SUCCESS;
}

bool Loop::Start() {
    try {
        shell.Create();
        return true;
    } catch (const CommandError& error) {
        std::cerr << "orv-shell: " << error.what() << std::endl;
        failed = true;
        return false;
    }
}

// False when the run is over.
bool Loop::Step() {
    TickWhenDue();
    ShowCallbacks();
    try {
        shell.Advance(Shell::Clock::now());
        executed = false;
        executed = !interrupted && !shell.Waiting() && ExecuteNext();
        if (!interrupted && !shell.Waiting() && !executed && input.AtEnd())
            return false;
    } catch (const CommandError& error) {
        Fail(error.what());
        if (input.StopsAtFailure())
            return false;
    }
    return !interrupted && !shell.QuitRequested();
}

// False when there was no line.
bool Loop::ExecuteNext() {
    const std::optional<std::string> line = input.Next();
    if (!line)
        return false;
    const std::optional<Statement> statement = Parse(*line);
    if (!statement)
        return true;
    if (input.StopsAtFailure() && statement->id != CommandId::NOTE)
        input.Show(TimeStamp(system_clock::now()) + " > " + Printable(line->substr(line->find_first_not_of(" \t"))));
    shell.Execute(*statement, Shell::Clock::now());
    return true;
}

void Loop::Sleep() {
    std::array<pollfd, 4> sources{{{signals.Descriptor(), POLLIN, 0},
                                   {shell.CallbackDescriptor(), POLLIN, 0},
                                   {shell.Waiting() ? -1 : input.Descriptor(), POLLIN, 0},
                                   {input.LogDescriptor(), POLLIN, 0}}};
    if (poll(sources.data(), sources.size(), TimeoutToNextDeadline()) <= 0)
        return;
    if (sources[3].revents != 0)
        input.ShowLog();
    const int signal = signals.Take();
    if (signal != 0)
        interrupted = signal != SIGINT || !input.CancelLine();
    if (sources[2].revents != 0)
        input.Read();
}

int Loop::TimeoutToNextDeadline() const {
    if (executed)
        return 0;
    constexpr auto longest = std::chrono::duration_cast<Shell::Clock::duration>(std::chrono::hours(1));
    const TimePoint now = Shell::Clock::now();
    TimePoint deadline = now + longest;
    if (tickInterval.count() > 0)
        deadline = std::min(deadline, nextTick);
    if (shell.WaitEnd())
        deadline = std::min(deadline, *shell.WaitEnd());
    else if (input.Descriptor() < 0)
        return 0;
    const auto left = std::chrono::ceil<milliseconds>(deadline - now);
    return static_cast<int>(std::max<milliseconds::rep>(left.count(), 0));
}

void Loop::TickWhenDue() {
    const TimePoint now = Shell::Clock::now();
    if (tickInterval.count() == 0 || now < nextTick)
        return;
    shell.Tick(tickInterval);
    nextTick = std::max(nextTick + tickInterval, now);
}

void Loop::ShowCallbacks() {
    for (const Callback& callback : shell.TakeCallbacks())
        input.Show(TimeStamp(callback.time) + " < " + CallbackText(callback));
}

void Loop::Fail(const std::string& message) {
    failed = true;
    input.ShowLog(); // the reasons
    const std::string text = input.Place() + message;
    if (input.StopsAtFailure())
        std::cerr << text << std::endl;
    else
        input.Show(text);
}

} // namespace OrvShell
