// SPDX-License-Identifier: Apache-2.0
#include "Command.h"
#include "CommandError.h"
#include "Loop.h"
#include "Options.h"

#include <OrvStackSdk/OrvStackSdk.h>

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

ProgramTexts Texts() {
    return {
        "orv-shell",
        "Usage: orv-shell [OPTION]... [SCENARIO]\n"
        "Makes every call of the connected-services library by hand or from a scenario file, and prints every "
        "callback.\n"
        "\n"
        "  SCENARIO         file with one command a line; without it, standard input is read\n"
        "\n"
        "Options:\n"
        "      --tick TIME  how often to tick (100ms); 0: only with the command tick\n"
        "      --simulate   on a simulated gateway and in virtual time: no broker, no waiting; it needs the test "
        "kit's\n"
        "                   orv-simulate\n"
        "      --check      only check that the scenario can be understood\n"
        "  -h, --help       this text\n"
        "      --version    the version\n"
        "\n"
        "Commands:\n" +
            HelpText() +
            "\n"
            "Exit status: 0 all is well, 1 a command failed, 2 the arguments or the scenario cannot be understood.\n"
            "The broker's address stands in /etc/orv/gateway.ini or in the file that ORV_GATEWAY_CONFIG names.\n",
        "orv-shell " ORV_VERSION};
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
    if (const std::optional<int> status = ReadOptions(argc, argv, Texts(), true, options))
        return *status;
    std::unique_ptr<Input> input;
    try {
        input = OpenInput(options);
    } catch (const CommandError& error) {
        std::cerr << error.what() << std::endl;
        return Loop::USAGE;
    }
    if (options.isCheckOnly)
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
