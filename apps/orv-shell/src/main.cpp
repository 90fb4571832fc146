// SPDX-License-Identifier: Apache-2.0
#include "CommandError.h"
#include "Duration.h"
#include "Loop.h"

#include <OrvStackSdk/OrvStackSdk.h>

#include <CLI/CLI.hpp>
#include <curl/curl.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>

#include <unistd.h>

using namespace OrvShell;

namespace {

constexpr const char* SIMULATION = "orv-simulate";

struct Options {
    std::string scenario;
    std::chrono::milliseconds tick{100};
    bool checkOnly = false;
};

// The exit status when there is nothing more to do.
std::optional<int> ParseArguments(int argc, char** argv, Options& options) {
    CLI::App app("Makes every call of the connected-services library by hand or from a scenario file, "
                 "and prints every callback.",
                 "orv-shell");
    std::string tick = "100ms";
    app.add_option("SCENARIO", options.scenario, "File with one command a line; without it, stdin is read");
    app.add_option("--tick", tick, "How often to tick, e.g. 100ms; 0: only with the command tick")
        ->capture_default_str();
    app.add_flag("--simulate", "On a simulated gateway and in virtual time: no broker, no waiting; it needs the test "
                               "kit's orv-simulate");
    app.add_flag("--check", options.checkOnly, "Only check that the scenario can be understood");
    app.set_version_flag("--version", "orv-shell " ORV_VERSION);
    app.footer(
        "\nCommands:\n" + HelpText() +
        "\nExit status: 0 all is well, 1 a command failed, 2 the arguments or the scenario cannot be understood.\n"
        "The broker's address stands in /etc/orv/gateway.ini or in the file that ORV_GATEWAY_CONFIG names.");
    try {
        app.parse(argc, argv);
        options.tick = ParseDuration(tick);
        if (options.checkOnly && options.scenario.empty())
            throw CommandError("--check needs a scenario");
    } catch (const CLI::ParseError& end) {
        return app.exit(end) == 0 ? Loop::SUCCESS : Loop::USAGE;
    } catch (const CommandError& error) {
        std::cerr << "orv-shell: " << error.what() << std::endl;
        return Loop::USAGE;
    }
    return std::nullopt;
}

/// Replaces this program by the simulation, with the same arguments; it stands beside this one, or in the PATH.
int Simulate(int argc, char** argv) {
    std::vector<char*> arguments;
    for (char** argument = argv; argument != argv + argc; ++argument) {
        if (std::strcmp(*argument, "--simulate") != 0)
            arguments.push_back(*argument);
    }
    arguments.push_back(nullptr);
    std::error_code unknown;
    const auto beside = std::filesystem::read_symlink("/proc/self/exe", unknown).replace_filename(SIMULATION);
    execv(beside.c_str(), arguments.data());
    execvp(SIMULATION, arguments.data());
    std::cerr << "orv-shell: " << SIMULATION << " cannot be run (" << std::generic_category().message(errno)
              << "): it comes with the test kit, in the package liborvstacksdk-test-dev" << std::endl;
    return Loop::COMMAND_FAILED;
}

std::string HistoryFile() {
    const char* home = std::getenv("HOME"); // NOLINT(concurrency-mt-unsafe): nobody sets it
    return home == nullptr || *home != '/' ? std::string() : std::string(home) + "/.orv_shell_history";
}

std::unique_ptr<Input> OpenInput(const Options& options) {
    if (!options.scenario.empty())
        return OpenScenario(options.scenario);
    if (isatty(STDIN_FILENO) != 0 && isatty(STDOUT_FILENO) != 0)
        return OpenKeyboard("orv> ", HistoryFile());
    return OpenStream(STDIN_FILENO);
}

int Run(int argc, char** argv) {
    if (std::any_of(argv + 1, argv + argc, [](const char* word) { return std::strcmp(word, "--simulate") == 0; }))
        return Simulate(argc, argv);
    Options options;
    if (const std::optional<int> status = ParseArguments(argc, argv, options))
        return *status;
    std::unique_ptr<Input> input;
    try {
        input = OpenInput(options);
    } catch (const CommandError& error) {
        std::cerr << error.what() << std::endl;
        return Loop::USAGE;
    }
    if (options.checkOnly)
        return Loop::SUCCESS;
    BlockEndingSignals();
    curl_global_init(CURL_GLOBAL_DEFAULT);
    return Loop(OrvStackSdk::CreateClient, *input, options.tick).Run();
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& error) {
        std::cerr << "orv-shell: " << error.what() << std::endl;
        return Loop::COMMAND_FAILED;
    }
}
