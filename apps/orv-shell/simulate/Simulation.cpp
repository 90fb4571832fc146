// SPDX-License-Identifier: Apache-2.0
#include "Simulation.h"

#include "CommandError.h"
#include "Duration.h"

#include <OrvStackSdk/OrvStackSdk.h>

#include <algorithm>
#include <array>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <iostream>

#include <poll.h>

namespace OrvShell {

namespace {

using OrvStackSdk::Testing::GatewayOptions;
using OrvStackSdk::Testing::LogRecords;
using std::chrono::milliseconds;

constexpr int NO_CONNECTION = 7; // libcurl's number
constexpr const char* ETHERNET = "eth0";
constexpr const char* CELLULAR = "wwan0";
constexpr std::size_t REMEMBERED = 1000;

GatewayOptions Options() {
    GatewayOptions options;
    options.logRecords = LogRecords::FROM_DEBUG;
    return options;
}

std::string TimeStamp(milliseconds time) {
    const auto ms = time.count();
    std::array<char, 40> text{};
    std::snprintf(text.data(), text.size(), "%02lld:%02d:%02d.%03dZ", static_cast<long long>(ms / 3600000),
                  static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60), static_cast<int>(ms % 1000));
    return text.data();
}

bool BeginsWith(const std::string& text, const char* beginning) {
    return text.rfind(beginning, 0) == 0;
}

/// What the route supervision says about its state in a line of the journal; empty when that is not its subject.
std::string StateIn(const std::string& line) {
    for (const char* beginning : {"log debug OrvRoute <Tick> \"", "log error OrvRoute \""}) {
        if (BeginsWith(line, beginning)) {
            const std::size_t start = line.find_first_not_of(' ', std::strlen(beginning));
            return line.substr(start, line.size() - 1 - start);
        }
    }
    return {};
}

} // namespace

Simulation::Simulation(Input& source, milliseconds tickInterval)
    : input(source),
      gateway(Options()),
      shell(OrvStackSdk::CreateClient, [this](const std::string& text) { input.Show(text); }),
      signals({SIGINT, SIGTERM, SIGHUP}) {
    if (tickInterval.count() > 0)
        gateway.Every(tickInterval, [this, tickInterval] { shell.Tick(tickInterval); });
}

int Simulation::Run() {
    shell.Create();
    ShowWhatHappened();
    while (Step()) {
    }
    shell.Finish();
    gateway.Settle();
    ShowWhatHappened();
    if (interrupted && input.StopsAtFailure())
        Fail("interrupted");
    return failed ? COMMAND_FAILED : SUCCESS;
}

// False when the run is over.
bool Simulation::Step() {
    if (!AwaitInput())
        return false;
    try {
        if (const std::optional<std::string> line = input.Next())
            Execute(*line);
        else if (input.AtEnd())
            return false;
    } catch (const CommandError& error) {
        ShowWhatHappened();
        Fail(error.what());
        if (input.StopsAtFailure())
            return false;
    }
    return !shell.QuitRequested();
}

// False when a signal ends the run.
bool Simulation::AwaitInput() {
    std::array<pollfd, 2> sources{{{signals.Descriptor(), POLLIN, 0}, {input.Descriptor(), POLLIN, 0}}};
    // Lines that are there already are not waited for.
    const bool ready = input.Descriptor() < 0;
    if (poll(sources.data(), sources.size(), ready ? 0 : -1) < 0)
        return true;
    const int signal = signals.Take();
    if (signal != 0)
        interrupted = signal != SIGINT || !input.CancelLine();
    if (sources[1].revents != 0)
        input.Read();
    return !interrupted;
}

void Simulation::Execute(const std::string& line) {
    const std::optional<Statement> statement = Parse(line);
    if (!statement)
        return;
    if (input.StopsAtFailure() && statement->id != CommandId::NOTE)
        Show(">", Printable(line.substr(line.find_first_not_of(" \t"))));
    if (IsAboutSurroundings(*statement))
        AttendToSurroundings(*statement);
    else
        shell.Execute(*statement, Now());
    LetTimePass();
}

void Simulation::AttendToSurroundings(const Statement& statement) {
    const Words& arguments = statement.arguments;
    switch (statement.id) {
    case CommandId::BROKER:
        return arguments[0] == "lost" ? gateway.broker.Lose() : gateway.broker.Return();
    case CommandId::CELLULAR:
        return PathBecomes(CELLULAR, arguments[0]);
    case CommandId::CONNMAN:
        return gateway.connman.RefuseToMove(arguments[0] == "frozen");
    case CommandId::ETHERNET:
        return PathBecomes(ETHERNET, arguments[0]);
    case CommandId::EXPECT:
        return Await(*statement.expectation);
    case CommandId::PUBLISH:
        return gateway.broker.Publish(arguments[0], arguments[1], arguments.size() > 2);
    default:
        return;
    }
}

void Simulation::PathBecomes(const std::string& interface, const std::string& fate) {
    if (fate == "dead")
        gateway.poke.Hangs(interface);
    else if (fate == "refused")
        gateway.poke.Fails(interface, NO_CONNECTION);
    else
        gateway.poke.Reaches(interface);
}

/// Stops right after what was expected: nothing that falls due later has happened yet.
void Simulation::Await(const Expectation& expectation) {
    ShowWhatHappened();
    const bool came = gateway.AdvanceUntil(
        [&] {
            ShowWhatHappened();
            return Fulfilled(expectation);
        },
        expectation.limit);
    if (!came)
        throw CommandError(CallbackText({expectation.name, expectation.arguments, {}}) + " has not come within " +
                           DurationText(expectation.limit));
}

bool Simulation::Fulfilled(const Expectation& expectation) {
    if (expectation.name == Expectation::ROUTE)
        return expectation.arguments.empty() || gateway.connman.Top() == expectation.arguments.front();
    const auto found = std::find_if(happened.begin(), happened.end(),
                                    [&](const Callback& candidate) { return Matches(candidate, expectation); });
    if (found == happened.end())
        return false;
    happened.erase(found);
    return true;
}

/// As far as the command waits, and at least until what it has caused has arrived.
void Simulation::LetTimePass() {
    gateway.Settle();
    ShowWhatHappened();
    while (shell.Waiting()) {
        const auto left = std::chrono::duration_cast<milliseconds>(*shell.WaitEnd() - Now());
        gateway.AdvanceUntil(
            [this] {
                ShowWhatHappened();
                shell.Advance(Now());
                return !shell.Waiting();
            },
            std::max(left, milliseconds(0)));
        ShowWhatHappened();
        shell.Advance(Now());
    }
}

void Simulation::ShowWhatHappened() {
    for (const auto& message : gateway.broker.Published()) {
        Show("*", std::string("publish ") + (message.retained ? "retained " : "") + Quote(message.topic) + " " +
                      Quote(message.payload));
        happened.push_back({Expectation::PUBLISHED, {message.topic, message.payload}, {}});
    }
    gateway.broker.Clear();
    for (const auto& entry : gateway.journal.Entries()) {
        if (const std::string state = StateIn(entry.what); !state.empty())
            happened.push_back({Expectation::STATE, {state}, {}});
        // Publications stand above as the broker has taken them, and what neighbours say is a command.
        if (!BeginsWith(entry.what, "publish") && !BeginsWith(entry.what, "neighbour publishes"))
            Show("*", Printable(entry.what));
    }
    gateway.journal.Clear();
    while (happened.size() > REMEMBERED)
        happened.pop_front();
    for (const Callback& callback : shell.TakeCallbacks())
        Show("<", CallbackText(callback));
}

void Simulation::Show(const char* mark, const std::string& what) {
    input.Show(TimeStamp(gateway.Elapsed()) + ' ' + mark + ' ' + what);
}

void Simulation::Fail(const std::string& message) {
    failed = true;
    const std::string text = input.Place() + message;
    if (input.StopsAtFailure())
        std::cerr << text << std::endl;
    else
        input.Show(text);
}

Shell::Clock::time_point Simulation::Now() const {
    return Shell::Clock::time_point(gateway.Elapsed());
}

} // namespace OrvShell
