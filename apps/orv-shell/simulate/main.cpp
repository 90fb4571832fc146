// SPDX-License-Identifier: Apache-2.0
// orv-simulate: what `orv-shell --simulate` runs. A program of its own, because it is the test kit that it is made of,
// which nobody needs on a gateway.
#include "CommandError.h"
#include "Duration.h"
#include "Loop.h"
#include "Simulation.h"

#include <CLI/CLI.hpp>

#include <iostream>

#include <unistd.h>

using namespace OrvShell;

namespace {

int Run(int argc, char** argv) {
    CLI::App app("orv-shell on a simulated gateway and in virtual time: no broker, no network, no waiting.",
                 "orv-shell --simulate");
    std::string scenario;
    std::string tick = "100ms";
    app.add_option("SCENARIO", scenario, "File with one command a line; without it, stdin is read");
    app.add_option("--tick", tick, "How often to tick, in virtual time; 0: only with the command tick")
        ->capture_default_str();
    app.set_version_flag("--version", "orv-simulate " ORV_VERSION);
    app.footer(
        "\nCommands:\n" + HelpText() +
        "\nTime stands still but for advance, wait and expect. Each line of output begins with the virtual time; > is "
        "a command,\n< a callback, * what happens on the gateway: publications as the broker has taken them, "
        "pokes, orders to the\nconnection manager, log records.\n"
        "Exit status: 0 all is well, 1 a command failed, 2 the arguments or the scenario cannot be understood.");
    std::unique_ptr<Input> input;
    std::chrono::milliseconds interval{};
    try {
        app.parse(argc, argv);
        interval = ParseDuration(tick);
        if (!scenario.empty())
            input = OpenScenario(scenario);
        else if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0)
            input = OpenKeyboard("simulated> ", "");
        else
            input = OpenStream(STDIN_FILENO);
    } catch (const CLI::ParseError& end) {
        return app.exit(end) == 0 ? Simulation::SUCCESS : Simulation::USAGE;
    } catch (const CommandError& error) {
        std::cerr << error.what() << std::endl;
        return Simulation::USAGE;
    }
    BlockEndingSignals();
    return Simulation(*input, interval).Run();
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "orv-simulate: " << error.what() << std::endl;
        return Simulation::COMMAND_FAILED;
    }
}
