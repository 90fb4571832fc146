// SPDX-License-Identifier: Apache-2.0
// orv-simulate: what `orv-shell --simulate` runs. A program of its own, because it is the test kit that it is made of,
// which nobody needs on a gateway.
#include "Command.h"
#include "CommandError.h"
#include "Loop.h"
#include "Options.h"
#include "Simulation.h"

#include <iostream>

#include <unistd.h>

using namespace OrvShell;

namespace {

ProgramTexts Texts() {
    return {
        "orv-shell --simulate",
        "Usage: orv-shell --simulate [OPTION]... [SCENARIO]\n"
        "orv-shell on a simulated gateway and in virtual time: no broker, no network, no waiting.\n"
        "\n"
        "  SCENARIO         file with one command a line; without it, standard input is read\n"
        "\n"
        "Options:\n"
        "      --tick TIME  how often to tick, in virtual time (100ms); 0: only with the command tick\n"
        "  -h, --help       this text\n"
        "      --version    the version\n"
        "\n"
        "Commands:\n" +
            HelpText() +
            "\n"
            "Time stands still but for advance, wait and expect. Each line of output begins with the virtual time; > "
            "is a "
            "command,\n"
            "< a callback, * what happens on the gateway: publications as the broker has taken them, pokes, orders to "
            "the\n"
            "connection manager, log records.\n"
            "Exit status: 0 all is well, 1 a command failed, 2 the arguments or the scenario cannot be understood.\n",
        "orv-simulate " ORV_VERSION};
}

int Run(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status = ReadOptions(argc, argv, Texts(), false, options))
        return *status;
    std::unique_ptr<Input> input;
    try {
        if (!options.scenario.empty())
            input = OpenScenario(options.scenario);
        else if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0)
            input = OpenKeyboard("simulated> ", "");
        else
            input = OpenStream(STDIN_FILENO);
    } catch (const CommandError& error) {
        std::cerr << error.what() << std::endl;
        return Simulation::USAGE;
    }
    BlockEndingSignals();
    return Simulation(*input, options.tick).Run();
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
